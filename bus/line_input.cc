#include "bus/line_input.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "programs/steady_time.h"
#include "programs/stop.h"

namespace {

constexpr size_t kReadBytes = size_t{64} << 10;

bool takeLine(LineInput& input, std::string_view& line) {
    size_t end = input.buffer.find('\n', input.searched);
    const bool isWhole = end != std::string::npos;
    if (!isWhole) {
        input.searched = input.buffer.size();
        if (!input.ended || input.begin == input.buffer.size()) return false;
        end = input.buffer.size();
    }
    line = {input.buffer.data() + input.begin, end - input.begin};
    input.begin = input.searched = end + (isWhole ? 1 : 0);
    ++input.lineNumber;
    return true;
}

// What was taken goes off the front, once for all lines of a read.
void dropTaken(LineInput& input) {
    input.buffer.erase(0, input.begin);
    input.searched -= input.begin;
    input.begin = 0;
}

// kLine where something was read, or the end.
LineResult readMore(LineInput& input, bool mayWait) {
    switch (stopWait(input.descriptor, POLLIN, mayWait ? kNever : 0)) {
        case StopWait::kStop:
            return LineResult::kStopped;
        case StopWait::kTime:
            return LineResult::kNone;
        case StopWait::kReady:
            break;
    }
    const size_t before = input.buffer.size();
    input.buffer.resize(before + kReadBytes);
    const ssize_t count = read(input.descriptor, input.buffer.data() + before, kReadBytes);
    input.buffer.resize(before + (count > 0 ? static_cast<size_t>(count) : 0));
    if (count == 0) input.ended = true;
    const bool again = count < 0 && (errno == EINTR || errno == EAGAIN);
    return count >= 0 || again ? LineResult::kLine : LineResult::kFailed;
}

}  // namespace

LineResult lineInputNext(LineInput& input, bool mayWait, std::string_view& line) {
    while (!takeLine(input, line)) {
        if (input.ended) return LineResult::kEnd;
        dropTaken(input);
        if (input.buffer.size() > kMostLineBytes) return LineResult::kTooLong;
        const LineResult result = readMore(input, mayWait);
        if (result != LineResult::kLine) return result;
    }
    return LineResult::kLine;
}
