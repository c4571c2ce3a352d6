// The Pelmo client library for C++20: objects that end by themselves, callbacks that are any
// callable, values by their types. One header over the calls of pelmo.h, with no code of its own in
// the library.
//
//     pelmo::Library library;
//     auto bus = pelmo::Transport::connect({.daemon = "127.0.0.1:7500"}).value();
//     auto work = pelmo::Queue::make({.limit = {pelmo::DiscardFirst, 1000, 10}}).value();
//     auto prices = work.listen(bus, "PRICES.>", [](pelmo::MessageView message) {
//         if (auto price = message.get<double>("price")) std::printf("%f\n", *price);
//     }).value();
//     (void)bus.send(pelmo::Message("PRICES.GOLD").add("price", 2050.5).add("unit", "oz"));
//     work.run(stop.get_token());
//
// Ownership: the objects are move-only, and each ends in its destructor what it made. Declared in
// the order library, transport, queue, listeners, they end in the right one; any other order is
// safe too, for an id that is gone is only an id. What a MessageView gives, texts and bytes and
// nested messages, belongs to its message (msg/message.h), and a view is valid as long as that: in
// a callback, until its end.
//
// Callbacks are moved into the object that the call returns, and run on a thread that dispatches
// the queue. The destructor of a Listener, Timer, Io or Request waits until no thread runs the
// callback, and frees it. Within the callback itself it doesn't wait, and the callback is freed
// after its end. A lambda is freed with what it has captured; so a handle may not be captured by
// its own callback, nor end under a lock that the callback takes.
//
// Failure: Result<T> has a value or a status with its text (base/status.h). Its value() throws
// Failure where there is none; so does the constructor of Library; nothing else throws but
// std::bad_alloc. An exception that leaves a callback ends the process by std::terminate, as one
// that leaves a thread's function does: a caller of C can't pass it on.
//
// Threads: as the calls. One object is used by one thread at a time, except that messages may be
// sent, and requests made, on one Transport by any number of threads, and that Queue::run,
// dispatch, wake and count may be called by any.
//
// Times are std::chrono durations; pelmo::forever and any negative one mean no limit.

#pragma once

#include <atomic>
#include <chrono>
#include <cmath>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <ranges>
#include <span>
#include <stop_token>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "pelmo.h"

namespace pelmo {

// Results

class Error {
  public:
    constexpr Error(pelmoStatus status) : status_(status) {}
    [[nodiscard]] constexpr pelmoStatus status() const { return status_; }
    [[nodiscard]] const char* text() const { return pelmoStatus_GetText(status_); }
    friend constexpr bool operator==(Error, Error) = default;

  private:
    pelmoStatus status_;
};

// What value() throws where there is none.
class Failure : public std::exception {
  public:
    explicit Failure(Error error) : error_(error) {}
    [[nodiscard]] Error error() const { return error_; }
    [[nodiscard]] const char* what() const noexcept override { return error_.text(); }

  private:
    Error error_;
};

// A value, or why there is none: in the manner of std::expected<T, Error>.
template <typename T>
class [[nodiscard]] Result {
  public:
    Result(T value) : status_(kStatusSuccess), value_(std::move(value)) {}
    Result(Error error) : status_(error.status()) {}

    [[nodiscard]] bool has_value() const { return value_.has_value(); }
    explicit operator bool() const { return has_value(); }
    [[nodiscard]] Error error() const { return status_; }

    T& value() & { return check(), *value_; }
    const T& value() const& { return check(), *value_; }
    T&& value() && { return check(), std::move(*value_); }
    T& operator*() & { return *value_; }
    const T& operator*() const& { return *value_; }
    T&& operator*() && { return std::move(*value_); }
    T* operator->() { return &*value_; }
    const T* operator->() const { return &*value_; }
    template <typename Other>
    T value_or(Other&& other) const& {
        return value_ ? *value_ : static_cast<T>(std::forward<Other>(other));
    }

  private:
    void check() const {
        if (!value_) throw Failure(status_);
    }

    pelmoStatus status_;
    std::optional<T> value_;
};

template <>
class [[nodiscard]] Result<void> {
  public:
    Result() = default;
    Result(Error error) : status_(error.status()) {}

    [[nodiscard]] bool has_value() const { return status_ == kStatusSuccess; }
    explicit operator bool() const { return has_value(); }
    [[nodiscard]] Error error() const { return status_; }
    void value() const {
        if (!has_value()) throw Failure(status_);
    }

  private:
    pelmoStatus status_ = kStatusSuccess;
};

// Ids, for calls of pelmo.h. Each kind is a type of its own.
enum class QueueId : uint32_t {};
enum class QueueGroupId : uint32_t {};
enum class TransportId : uint32_t {};
enum class EventId : uint32_t {};
enum class DispatcherId : uint32_t {};

template <typename Id>
requires std::is_enum_v<Id>
[[nodiscard]] constexpr uint32_t number(Id id) {
    return static_cast<uint32_t>(id);
}

// Times

using Seconds = std::chrono::duration<double>;
inline constexpr Seconds forever{-1.0};

using Time = std::chrono::sys_time<std::chrono::nanoseconds>;

// A text that ends with a NUL: a literal, or a std::string.
class Name {
  public:
    Name(const char* text) : text_(text) {}
    Name(const std::string& text) : text_(text.c_str()) {}
    [[nodiscard]] const char* c_str() const { return text_; }

  private:
    const char* text_;
};

using Bytes = std::span<const std::byte>;

class MessageView;

namespace detail {

inline Result<void> resultOf(pelmoStatus status) {
    return status == kStatusSuccess ? Result<void>() : Result<void>(Error(status));
}

// The calls for one field of a type.
template <auto addCall, auto updateCall>
struct Calls {
    static constexpr auto add = addCall;
    static constexpr auto update = updateCall;
};
template <auto addCall, auto updateCall, auto getCall>
struct CallsOfNumber : Calls<addCall, updateCall> {
    static constexpr auto get = getCall;
};
template <auto addCall, auto updateCall, uint8_t fieldType>
struct CallsOfArray : Calls<addCall, updateCall> {
    static constexpr uint8_t type = fieldType;
};

// By the type of a number, and of the elements of an array.
template <typename Number>
struct NumberCalls;
template <typename Number>
struct ArrayCalls;

// clang-format off
template <> struct NumberCalls<int8_t> : CallsOfNumber<pelmoMsg_AddI8, pelmoMsg_UpdateI8, pelmoMsg_GetI8Exact> {};
template <> struct NumberCalls<uint8_t> : CallsOfNumber<pelmoMsg_AddU8, pelmoMsg_UpdateU8, pelmoMsg_GetU8Exact> {};
template <> struct NumberCalls<int16_t> : CallsOfNumber<pelmoMsg_AddI16, pelmoMsg_UpdateI16, pelmoMsg_GetI16Exact> {};
template <> struct NumberCalls<uint16_t> : CallsOfNumber<pelmoMsg_AddU16, pelmoMsg_UpdateU16, pelmoMsg_GetU16Exact> {};
template <> struct NumberCalls<int32_t> : CallsOfNumber<pelmoMsg_AddI32, pelmoMsg_UpdateI32, pelmoMsg_GetI32Exact> {};
template <> struct NumberCalls<uint32_t> : CallsOfNumber<pelmoMsg_AddU32, pelmoMsg_UpdateU32, pelmoMsg_GetU32Exact> {};
template <> struct NumberCalls<int64_t> : CallsOfNumber<pelmoMsg_AddI64, pelmoMsg_UpdateI64, pelmoMsg_GetI64Exact> {};
template <> struct NumberCalls<uint64_t> : CallsOfNumber<pelmoMsg_AddU64, pelmoMsg_UpdateU64, pelmoMsg_GetU64Exact> {};
template <> struct NumberCalls<float> : CallsOfNumber<pelmoMsg_AddF32, pelmoMsg_UpdateF32, pelmoMsg_GetF32Exact> {};
template <> struct NumberCalls<double> : CallsOfNumber<pelmoMsg_AddF64, pelmoMsg_UpdateF64, pelmoMsg_GetF64Exact> {};

template <> struct ArrayCalls<int8_t> : CallsOfArray<pelmoMsg_AddI8Array, pelmoMsg_UpdateI8Array, FIELD_I8ARRAY> {};
template <> struct ArrayCalls<uint8_t> : CallsOfArray<pelmoMsg_AddU8Array, pelmoMsg_UpdateU8Array, FIELD_U8ARRAY> {};
template <> struct ArrayCalls<int16_t> : CallsOfArray<pelmoMsg_AddI16Array, pelmoMsg_UpdateI16Array, FIELD_I16ARRAY> {};
template <> struct ArrayCalls<uint16_t> : CallsOfArray<pelmoMsg_AddU16Array, pelmoMsg_UpdateU16Array, FIELD_U16ARRAY> {};
template <> struct ArrayCalls<int32_t> : CallsOfArray<pelmoMsg_AddI32Array, pelmoMsg_UpdateI32Array, FIELD_I32ARRAY> {};
template <> struct ArrayCalls<uint32_t> : CallsOfArray<pelmoMsg_AddU32Array, pelmoMsg_UpdateU32Array, FIELD_U32ARRAY> {};
template <> struct ArrayCalls<int64_t> : CallsOfArray<pelmoMsg_AddI64Array, pelmoMsg_UpdateI64Array, FIELD_I64ARRAY> {};
template <> struct ArrayCalls<uint64_t> : CallsOfArray<pelmoMsg_AddU64Array, pelmoMsg_UpdateU64Array, FIELD_U64ARRAY> {};
template <> struct ArrayCalls<float> : CallsOfArray<pelmoMsg_AddF32Array, pelmoMsg_UpdateF32Array, FIELD_F32ARRAY> {};
template <> struct ArrayCalls<double> : CallsOfArray<pelmoMsg_AddF64Array, pelmoMsg_UpdateF64Array, FIELD_F64ARRAY> {};
// clang-format on

// The number of the same width and sign: `long long` and `long` are both 64 bits, `char` is 8.
template <typename T>
using Fixed = std::conditional_t<
    std::is_floating_point_v<T>,
    std::conditional_t<sizeof(T) == 4, float, double>,
    std::conditional_t<
        std::is_signed_v<T>,
        std::conditional_t<
            sizeof(T) == 1,
            int8_t,
            std::conditional_t<sizeof(T) == 2,
                               int16_t,
                               std::conditional_t<sizeof(T) == 4, int32_t, int64_t>>>,
        std::conditional_t<
            sizeof(T) == 1,
            uint8_t,
            std::conditional_t<sizeof(T) == 2,
                               uint16_t,
                               std::conditional_t<sizeof(T) == 4, uint32_t, uint64_t>>>>>;

template <typename T>
concept Number = std::is_arithmetic_v<T> && !std::same_as<T, bool> && sizeof(T) <= 8;

template <typename T>
inline constexpr bool isNumberSpan = false;
template <Number T>
inline constexpr bool isNumberSpan<std::span<const T>> = true;

// Numbers one after another: std::vector<double>, std::array<int32_t, 3>, std::span<const float>.
template <typename T>
concept Numbers = std::ranges::contiguous_range<T> && std::ranges::sized_range<T> &&
    Number<std::ranges::range_value_t<T>> && !std::convertible_to<T, std::string_view>;

template <typename T>
inline constexpr bool isVector = false;
template <typename T>
inline constexpr bool isVector<std::vector<T>> = true;

// Texts that end with a NUL, and messages, one after another.
template <typename T>
concept Texts = std::ranges::sized_range<T> && !std::convertible_to<T, std::string_view> &&
                std::convertible_to<std::ranges::range_reference_t<T>, Name>;
template <typename T>
concept Messages =
    std::ranges::sized_range<T> && std::derived_from<std::ranges::range_value_t<T>, MessageView>;

// The number as a To where that loses nothing, as in the Exact calls.
template <typename To, typename From>
std::optional<To> exactly(From value) {
    using Limits = std::numeric_limits<To>;
    if constexpr (std::is_integral_v<From> && std::is_integral_v<To>) {
        if (!std::in_range<To>(value)) return {};
        return static_cast<To>(value);
    } else if constexpr (std::is_integral_v<To>) {
        const auto end = std::ldexp(From{1}, Limits::digits);
        const auto low = Limits::is_signed ? -end : From{0};
        if (!(value >= low && value < end) || std::trunc(value) != value) return {};
        return static_cast<To>(value);
    } else if constexpr (std::is_integral_v<From>) {
        const To made = static_cast<To>(value);
        if (exactly<From>(made) != value) return {};
        return made;
    } else {
        if (std::isfinite(value) && std::abs(value) > Limits::max()) return {};
        const To made = static_cast<To>(value);
        if (made != value && !std::isnan(value)) return {};
        return made;
    }
}

// function(number type) for an array of numbers; false for other fields.
template <typename Function, typename... Types>
bool callForNumbers(uint8_t type, Function function, std::tuple<Types...>*) {
    return ((type == ArrayCalls<Types>::type ? (function(Types{}), true) : false) || ...);
}
using AllNumbers = std::
    tuple<int8_t, uint8_t, int16_t, uint16_t, int32_t, uint32_t, int64_t, uint64_t, float, double>;

inline pelmoMsgDateTime dateTimeOf(Time time) {
    const auto whole = std::chrono::floor<std::chrono::seconds>(time);
    return {whole.time_since_epoch().count(), static_cast<uint32_t>((time - whole).count())};
}

inline uint32_t count32(size_t count) {
    return count <= UINT32_MAX ? static_cast<uint32_t>(count) : UINT32_MAX;
}

}  // namespace detail

// Messages

// A message that belongs to another. Copies are views of the same one.
class MessageView {
  public:
    constexpr explicit MessageView(pelmoMsg* msg) : msg_(msg) {}

    // The field of that name as a T:
    //
    //     bool and numbers          as pelmoMsg_GetBoolExact and so on: nothing is rounded or cut
    //     std::string_view, std::string
    //     pelmo::Bytes              an opaque field
    //     pelmo::Time               a date, in UTC
    //     pelmo::MessageView        a nested message
    //     std::span<const int32_t>  an array of that type, likewise of the other numbers
    //     std::vector<int32_t>      a copy of an array of any numbers, if each of them fits
    //     std::vector<...>          of std::string_view, std::string or MessageView: an array of
    //                               texts or messages
    //
    // kStatusConversionFailed where a number doesn't fit, an array has elements of another type, or
    // there is no way from the field's type; kStatusNotFound where there is no such field.
    template <typename T>
    [[nodiscard]] Result<T> get(Name name, uint16_t id = 0) const {
        if constexpr (std::same_as<T, bool>) {
            return scalar<T, uint32_t>(pelmoMsg_GetBoolExact, name, id);
        } else if constexpr (detail::Number<T>) {
            using Fixed = detail::Fixed<T>;
            return scalar<T, Fixed>(detail::NumberCalls<Fixed>::get, name, id);
        } else if constexpr (std::same_as<T, std::string_view> || std::same_as<T, std::string>) {
            const char* text = nullptr;
            size_t length = 0;
            const pelmoStatus status = pelmoMsg_GetStringN(msg_, name.c_str(), &text, &length, id);
            if (status != kStatusSuccess) return Error(status);
            return T(text, length);
        } else if constexpr (std::same_as<T, Bytes>) {
            const void* bytes = nullptr;
            uint32_t length = 0;
            const pelmoStatus status = pelmoMsg_GetOpaque(msg_, name.c_str(), &bytes, &length, id);
            if (status != kStatusSuccess) return Error(status);
            return Bytes(static_cast<const std::byte*>(bytes), length);
        } else if constexpr (std::same_as<T, Time>) {
            pelmoMsgDateTime time = {};
            const pelmoStatus status = pelmoMsg_GetDateTime(msg_, name.c_str(), &time, id);
            if (status != kStatusSuccess) return Error(status);
            return Time(std::chrono::seconds(time.seconds)) +
                   std::chrono::nanoseconds(time.nanoseconds);
        } else if constexpr (std::same_as<T, MessageView>) {
            pelmoMsg* nested = nullptr;
            const pelmoStatus status = pelmoMsg_GetMsg(msg_, name.c_str(), &nested, id);
            if (status != kStatusSuccess) return Error(status);
            return MessageView(nested);
        } else if constexpr (detail::isVector<T>) {
            return list<typename T::value_type>(name, id);
        } else {
            static_assert(detail::isNumberSpan<T>, "no field reads as this type");
            using Value = std::remove_const_t<typename T::element_type>;
            using Fixed = detail::Fixed<Value>;
            static_assert(std::same_as<Value, Fixed>, "a span of int8_t, uint8_t and so on");
            pelmoMsgField field;
            const pelmoStatus status = pelmoMsg_GetFieldEx(msg_, name.c_str(), &field, id);
            if (status != kStatusSuccess) return Error(status);
            if (field.type != detail::ArrayCalls<Fixed>::type)
                return Error(kStatusConversionFailed);
            return T(static_cast<const Fixed*>(field.data.pointer), field.count);
        }
    }

    // Empty where there is none.
    [[nodiscard]] std::string_view subject() const { return text(pelmoMsg_GetSendSubjectN); }
    [[nodiscard]] std::string_view replySubject() const { return text(pelmoMsg_GetReplySubjectN); }

    // One readable line; empty for a malformed message.
    [[nodiscard]] std::string_view text() const { return text(pelmoMsg_ConvertToStringN); }

    // The image of the fields, valid until the message's next change.
    [[nodiscard]] Bytes bytes() const {
        const void* bytes = nullptr;
        size_t length = 0;
        (void)pelmoMsg_GetAsBytesN(msg_, &bytes, &length);
        return {static_cast<const std::byte*>(bytes), length};
    }

    [[nodiscard]] uint32_t fieldCount() const {
        uint32_t count = 0;
        (void)pelmoMsg_GetNumFields(msg_, &count);
        return count;
    }

    // By its place in the message, from 0.
    [[nodiscard]] Result<pelmoMsgField> field(uint32_t index) const {
        pelmoMsgField found;
        const pelmoStatus status = pelmoMsg_GetFieldByIndex(msg_, &found, index);
        if (status != kStatusSuccess) return Error(status);
        return found;
    }

    [[nodiscard]] pelmoMsg* raw() const { return msg_; }

  protected:
    pelmoMsg* msg_;

  private:
    template <typename T, typename Raw>
    Result<T> scalar(pelmoStatus (*read)(const pelmoMsg*, const char*, Raw*, uint16_t),
                     Name name,
                     uint16_t id) const {
        Raw value{};
        const pelmoStatus status = read(msg_, name.c_str(), &value, id);
        if (status != kStatusSuccess) return Error(status);
        return static_cast<T>(value);
    }

    template <typename T>
    Result<std::vector<T>> list(Name name, uint16_t id) const {
        pelmoMsgField field;
        const pelmoStatus status = pelmoMsg_GetFieldEx(msg_, name.c_str(), &field, id);
        if (status != kStatusSuccess) return Error(status);
        std::vector<T> made;
        bool fits = false;
        if constexpr (detail::Number<T>) {
            const auto copy = [&]<typename From>(From) {
                const auto* const from = static_cast<const From*>(field.data.pointer);
                for (uint32_t i = 0; i < field.count; ++i) {
                    const auto value = detail::exactly<T>(from[i]);
                    if (!value) return;
                    made.push_back(*value);
                }
                fits = true;
            };
            (void)detail::callForNumbers(field.type, copy,
                                         static_cast<detail::AllNumbers*>(nullptr));
        } else if constexpr (std::same_as<T, MessageView>) {
            fits = copyArray<pelmoMsg*>(field, FIELD_MSGARRAY, made);
        } else {
            static_assert(std::same_as<T, std::string_view> || std::same_as<T, std::string>,
                          "no field reads as this type");
            fits = copyArray<const char*>(field, FIELD_STRINGARRAY, made);
        }
        if (!fits) return Error(kStatusConversionFailed);
        return made;
    }

    template <typename From, typename T>
    static bool copyArray(const pelmoMsgField& field, uint8_t type, std::vector<T>& made) {
        if (field.type != type) return false;
        const auto* const from = static_cast<const From*>(field.data.pointer);
        for (uint32_t i = 0; i < field.count; ++i)
            made.emplace_back(from[i]);
        return true;
    }

    [[nodiscard]] std::string_view text(pelmoStatus (*read)(const pelmoMsg*,
                                                            const char**,
                                                            size_t*)) const {
        const char* bytes = nullptr;
        size_t length = 0;
        if (read(msg_, &bytes, &length) != kStatusSuccess) return {};
        return {bytes, length};
    }
};

// A message of one's own. What fails while it is built is kept, the first status of it, and
// answered when it is sent; later additions do nothing.
class Message : public MessageView {
  public:
    Message() : MessageView(nullptr) { keep(pelmoMsg_Create(&msg_)); }
    explicit Message(std::string_view subject) : Message() { to(subject); }
    Message(Message&& other) noexcept
        : MessageView(std::exchange(other.msg_, nullptr)),
          status_(std::exchange(other.status_, kStatusInvalidMessage)) {}
    Message& operator=(Message&& other) noexcept {
        std::swap(msg_, other.msg_);
        std::swap(status_, other.status_);
        return *this;
    }
    ~Message() {
        if (msg_ != nullptr) (void)pelmoMsg_Destroy(msg_);
    }

    // Takes over a message that its caller would have to destroy.
    [[nodiscard]] static Message adopt(pelmoMsg* msg) { return Message(msg, Adopt()); }

    // A copy of the fields, to keep or change.
    [[nodiscard]] static Result<Message> copy(MessageView of) {
        pelmoMsg* made = nullptr;
        const pelmoStatus status = pelmoMsg_CreateCopy(of.raw(), &made);
        if (status != kStatusSuccess) return Error(status);
        return adopt(made);
    }

    // In a callback: the message itself, without a copy, to keep beyond its end.
    [[nodiscard]] static Result<Message> take(MessageView delivered) {
        const pelmoStatus status = pelmoMsg_Detach(delivered.raw());
        if (status != kStatusSuccess) return Error(status);
        return adopt(delivered.raw());
    }

    // What bytes() gave, on this machine or another.
    [[nodiscard]] static Result<Message> fromBytes(Bytes bytes) {
        pelmoMsg* made = nullptr;
        const pelmoStatus status = pelmoMsg_CreateFromBytesN(&made, bytes.data(), bytes.size());
        if (status != kStatusSuccess) return Error(status);
        return adopt(made);
    }

    Message& to(std::string_view subject) & {
        return keep(pelmoMsg_SetSendSubjectN(msg_, subject.data(), subject.size()));
    }
    Message&& to(std::string_view subject) && { return std::move(to(subject)); }
    Message& replyTo(std::string_view subject) & {
        return keep(pelmoMsg_SetReplySubjectN(msg_, subject.data(), subject.size()));
    }

    // A field more; update() changes the one of that name, or adds it. Values: bool, numbers (whose
    // width and sign are the field's), text, Bytes, Time, messages, and numbers, texts or messages
    // one after another, one at least.
    template <typename T>
    Message& add(Name name, const T& value, uint16_t id = 0) & {
        return keep(write<true>(name, value, id));
    }
    template <typename T>
    Message&& add(Name name, const T& value, uint16_t id = 0) && {
        return std::move(add(name, value, id));
    }
    template <typename T>
    Message& update(Name name, const T& value, uint16_t id = 0) & {
        return keep(write<false>(name, value, id));
    }
    template <typename T>
    Message&& update(Name name, const T& value, uint16_t id = 0) && {
        return std::move(update(name, value, id));
    }

    // Removes the fields and what was read, and forgets what failed: for one message that is built
    // often.
    Message& reset() {
        status_ = pelmoMsg_Reset(msg_);
        return *this;
    }

    // Whether all went well so far.
    [[nodiscard]] Result<void> status() const { return detail::resultOf(status_); }

    // The same as the number; kStatusInvalidMessage after a move.
    [[nodiscard]] pelmoStatus rawStatus() const { return status_; }

    // Gives the message to the caller, who has to destroy it.
    [[nodiscard]] pelmoMsg* release() && {
        status_ = kStatusInvalidMessage;
        return std::exchange(msg_, nullptr);
    }

  private:
    struct Adopt {};
    Message(pelmoMsg* msg, Adopt) : MessageView(msg) {}

    Message& keep(pelmoStatus status) {
        if (status_ == kStatusSuccess) status_ = status;
        return *this;
    }

    template <bool adds, typename T>
    pelmoStatus write(Name name, const T& value, uint16_t id) {
        if (status_ != kStatusSuccess) return status_;
        const char* const field = name.c_str();
        if constexpr (std::same_as<T, bool>) {
            return adds ? pelmoMsg_AddBool(msg_, field, value ? 1 : 0, id)
                        : pelmoMsg_UpdateBool(msg_, field, value ? 1 : 0, id);
        } else if constexpr (detail::Number<T>) {
            using Calls = detail::NumberCalls<detail::Fixed<T>>;
            const auto fixed = static_cast<detail::Fixed<T>>(value);
            return adds ? Calls::add(msg_, field, fixed, id)
                        : Calls::update(msg_, field, fixed, id);
        } else if constexpr (std::convertible_to<const T&, std::string_view>) {
            const std::string_view text = value;
            return adds ? pelmoMsg_AddStringN(msg_, field, text.data(), text.size(), id)
                        : pelmoMsg_UpdateStringN(msg_, field, text.data(), text.size(), id);
        } else if constexpr (std::convertible_to<const T&, Bytes>) {
            const Bytes bytes = value;
            if (bytes.size() > UINT32_MAX) return kStatusInvalidSize;
            const void* const data = bytes.empty() ? "" : static_cast<const void*>(bytes.data());
            const auto count = static_cast<uint32_t>(bytes.size());
            return adds ? pelmoMsg_AddOpaque(msg_, field, data, count, id)
                        : pelmoMsg_UpdateOpaque(msg_, field, data, count, id);
        } else if constexpr (std::convertible_to<const T&, Time>) {
            const pelmoMsgDateTime time = detail::dateTimeOf(value);
            return adds ? pelmoMsg_AddDateTime(msg_, field, &time, id)
                        : pelmoMsg_UpdateDateTime(msg_, field, &time, id);
        } else if constexpr (std::derived_from<T, MessageView>) {
            return adds ? pelmoMsg_AddMsg(msg_, field, value.raw(), id)
                        : pelmoMsg_UpdateMsg(msg_, field, value.raw(), id);
        } else if constexpr (detail::Texts<const T>) {
            std::vector<const char*> texts;
            for (const Name text : value)
                texts.push_back(text.c_str());
            return writeList(adds ? pelmoMsg_AddStringArray : pelmoMsg_UpdateStringArray, field,
                             texts, id);
        } else if constexpr (detail::Messages<const T>) {
            std::vector<pelmoMsg*> messages;
            for (const MessageView& message : value)
                messages.push_back(message.raw());
            return writeList(adds ? pelmoMsg_AddMsgArray : pelmoMsg_UpdateMsgArray, field, messages,
                             id);
        } else {
            static_assert(detail::Numbers<const T>, "no field has this type");
            using Fixed = detail::Fixed<std::ranges::range_value_t<T>>;
            static_assert(std::same_as<std::ranges::range_value_t<T>, Fixed>,
                          "numbers of int8_t, uint8_t and so on");
            using Calls = detail::ArrayCalls<Fixed>;
            const size_t size = std::ranges::size(value);
            if (size > UINT32_MAX) return kStatusInvalidSize;
            const Fixed none{};
            const Fixed* const data = size != 0 ? std::ranges::data(value) : &none;
            const auto count = static_cast<uint32_t>(size);
            return adds ? Calls::add(msg_, field, data, count, id)
                        : Calls::update(msg_, field, data, count, id);
        }
    }

    template <typename Call, typename Item>
    pelmoStatus writeList(Call call, const char* field, std::vector<Item>& items, uint16_t id) {
        if (items.size() > UINT32_MAX) return kStatusInvalidSize;
        const auto count = static_cast<uint32_t>(items.size());
        if (items.empty()) items.push_back(nullptr);  // no elements are refused, as no data are
        return call(msg_, field, items.data(), count, id);
    }

    pelmoStatus status_ = kStatusSuccess;
};

// The library: open while one of these exists. What ends by the last one, see pelmo.h.
class Library {
  public:
    Library() : open_(true) {
        const pelmoStatus status = pelmo_Open();
        if (status != kStatusSuccess) throw Failure(status);
    }
    Library(Library&& other) noexcept : open_(std::exchange(other.open_, false)) {}
    Library& operator=(Library&& other) noexcept {
        std::swap(open_, other.open_);
        return *this;
    }
    ~Library() { (void)close(); }

    // kStatusDeliveryFailed where not all that was sent is known to have left.
    Result<void> close() {
        if (!std::exchange(open_, false)) return {};
        return detail::resultOf(pelmo_Close());
    }

    [[nodiscard]] static const char* version() { return pelmo_Version(); }

  private:
    bool open_;
};

// What calls back

namespace detail {

template <typename Function>
concept MessageCallback = std::invocable<Function&, MessageView> || std::invocable<Function&>;

// A callable in a place of its own, which the library knows as the closure.
struct Callback {
    virtual ~Callback() = default;
};

template <typename Function>
struct CallbackOf final : Callback {
    explicit CallbackOf(Function given) : function(std::move(given)) {}
    Function function;

    // No exception leaves it: std::terminate.
    static void onMessage(uint32_t, pelmoMsg* msg, void* closure) noexcept {
        auto& own = *static_cast<CallbackOf*>(static_cast<Callback*>(closure));
        if constexpr (std::invocable<Function&, MessageView>) {
            std::invoke(own.function, MessageView(msg));
        } else {
            std::invoke(own.function);
        }
    }

    static void onReply(uint32_t, pelmoMsg* msg, void* closure) noexcept {
        auto& own = *static_cast<CallbackOf*>(static_cast<Callback*>(closure));
        if (msg != nullptr) {
            std::invoke(own.function, Result<MessageView>(MessageView(msg)));
        } else {
            std::invoke(own.function, Result<MessageView>(Error(kStatusTimeout)));
        }
    }

    // The batch is one listener's own, so all of its messages have one closure.
    static void onBatch(pelmoMsg** messages, uint32_t count) noexcept {
        void* closure = nullptr;
        (void)pelmoMsg_GetClosure(messages[0], &closure);
        auto& own = *static_cast<CallbackOf*>(static_cast<Callback*>(closure));
        alignas(MessageView) std::byte room[kMostBatchMessages * sizeof(MessageView)];
        auto* const views = reinterpret_cast<MessageView*>(room);
        for (uint32_t i = 0; i < count; ++i)
            std::construct_at(views + i, messages[i]);
        std::invoke(own.function, std::span<const MessageView>(views, count));
    }
};

}  // namespace detail

// An event and its callback: what Listener, Timer, Io and Request have in common.
class Event {
    friend class Queue;
    friend class Transport;

  public:
    Event(Event&& other) noexcept
        : id_(std::exchange(other.id_, kNoId)),
          callback_(std::exchange(other.callback_, nullptr)) {}
    Event& operator=(Event&& other) noexcept {
        if (this != &other) {
            end();
            id_ = std::exchange(other.id_, kNoId);
            callback_ = std::exchange(other.callback_, nullptr);
        }
        return *this;
    }
    ~Event() { end(); }

    // As the destructor. Nothing happens at an event that has ended.
    void end() noexcept {
        detail::Callback* const callback = std::exchange(callback_, nullptr);
        if (callback == nullptr) return;
        const auto free = [](uint32_t, void* closure) {
            delete static_cast<detail::Callback*>(closure);
        };
        const bool within = pelmoEvent_DestroyWait(id_) == kStatusNotPermitted;
        if (!within || pelmoEvent_DestroyEx(id_, free) != kStatusSuccess) delete callback;
    }

    [[nodiscard]] EventId id() const { return EventId{id_}; }

  protected:
    // make(id, closure) gives the event its id.
    template <typename Handle, typename Function, typename Make>
    static Result<Handle> make(Function&& function, Make makeEvent) {
        using Callback = detail::CallbackOf<std::decay_t<Function>>;
        auto callback = std::make_unique<Callback>(std::forward<Function>(function));
        uint32_t id = kNoId;
        const pelmoStatus status =
            makeEvent(&id, static_cast<void*>(static_cast<detail::Callback*>(callback.get())));
        if (status != kStatusSuccess) return Error(status);
        return Handle(id, callback.release());
    }

    Event(uint32_t id, detail::Callback* callback) : id_(id), callback_(callback) {}

    uint32_t id_;

  private:
    detail::Callback* callback_;
};

class Listener : public Event {
    using Event::Event;
    friend class Event;
    friend class Queue;

  public:
    // The subject that it was made with.
    [[nodiscard]] std::string subject() const {
        const char* text = nullptr;
        return pelmoEvent_GetListenerSubject(id_, &text) == kStatusSuccess ? text : "";
    }
};

class Timer : public Event {
    using Event::Event;
    friend class Event;
    friend class Queue;

  public:
    // Counts from now.
    Result<void> reset(Seconds interval) {
        return detail::resultOf(pelmoEvent_ResetTimerInterval(id_, interval.count()));
    }
};

class Io : public Event {
    using Event::Event;
    friend class Event;
    friend class Queue;
};

// An answer that is awaited. Its end cancels it; after the answer there is nothing to end.
class Request : public Event {
    using Event::Event;
    friend class Event;
    friend class Transport;
};

class Queue;

// Transports

struct TransportOptions {
    // As pelmoTransport_CreateNetwork takes them; empty for the defaults.
    std::string service = {};
    std::string network = {};
    std::string daemon = {};
    bool resume = true;  // what an earlier connection left unfinished
};

class Transport {
  public:
    // Waits until the daemon has answered.
    [[nodiscard]] static Result<Transport> connect(const TransportOptions& options = {}) {
        const auto create =
            options.resume ? pelmoTransport_CreateNetwork : pelmoTransport_CreateNetworkNoResume;
        uint32_t id = kNoId;
        const pelmoStatus status =
            create(&id, options.service.c_str(), options.network.c_str(), options.daemon.c_str());
        if (status != kStatusSuccess) return Error(status);
        return Transport(id);
    }

    // The one within the process, which is always there.
    [[nodiscard]] static Transport local() { return Transport(kIntraProcessTransportId); }

    Transport(Transport&& other) noexcept : id_(std::exchange(other.id_, kNoId)) {}
    Transport& operator=(Transport&& other) noexcept {
        std::swap(id_, other.id_);
        return *this;
    }
    ~Transport() {
        if (ends()) (void)pelmoTransport_Destroy(id_);
    }

    // Ends it now, and answers what the destructor can't: kStatusDeliveryFailed where not all that
    // was sent has left in that time.
    Result<void> close(Seconds within) {
        if (!ends()) return {};
        return detail::resultOf(
            pelmoTransport_DestroyWithin(std::exchange(id_, kNoId), within.count()));
    }

    Result<void> send(const Message& message) const {
        if (message.rawStatus() != kStatusSuccess) return Error(message.rawStatus());
        return detail::resultOf(pelmoTransport_Send(id_, message.raw()));
    }

    // In order, and more quickly than one by one.
    Result<void> send(std::span<const Message> messages) const {
        std::vector<pelmoMsg*> each;
        each.reserve(messages.size());
        for (const Message& message : messages) {
            if (message.rawStatus() != kStatusSuccess) return Error(message.rawStatus());
            each.push_back(message.raw());
        }
        return detail::resultOf(
            pelmoTransport_Sendv(id_, each.data(), detail::count32(each.size())));
    }

    // Waits for the answer; kStatusTimeout where none comes in time. Takes a message as it is
    // given, since its reply subject is set.
    [[nodiscard]] Result<Message> request(const Message& message, Seconds limit) const {
        if (message.rawStatus() != kStatusSuccess) return Error(message.rawStatus());
        pelmoMsg* reply = nullptr;
        const pelmoStatus status =
            pelmoTransport_SendRequest(id_, message.raw(), &reply, limit.count());
        if (status != kStatusSuccess) return Error(status);
        return Message::adopt(reply);
    }

    // Returns at once; the callable gets a Result<MessageView> on the queue, once: the answer, or
    // kStatusTimeout where none came in time or the transport has ended.
    template <std::invocable<Result<MessageView>> Function>
    [[nodiscard]] Result<Request> request(const Queue& queue,
                                          const Message& message,
                                          Seconds limit,
                                          Function&& function) const;

    // Answers a request.
    Result<void> reply(MessageView request, const Message& answer) const {
        if (answer.rawStatus() != kStatusSuccess) return Error(answer.rawStatus());
        return detail::resultOf(pelmoTransport_SendReply(id_, answer.raw(), request.raw()));
    }

    // A subject of one's own, that no wildcard matches.
    [[nodiscard]] Result<std::string> inbox() const {
        char text[kInboxTextBytes];
        const pelmoStatus status = pelmoTransport_CreateInbox(id_, text, sizeof text);
        if (status != kStatusSuccess) return Error(status);
        return std::string(text);
    }

    [[nodiscard]] TransportId id() const { return TransportId{id_}; }

  protected:
    explicit Transport(uint32_t id) : id_(id) {}

    uint32_t id_;

  private:
    static constexpr size_t kInboxTextBytes = 256;

    [[nodiscard]] bool ends() const { return id_ != kNoId && id_ != kIntraProcessTransportId; }
};

// A transport to one peer, over another one (transport/circuit/circuit.h).
class Circuit : public Transport {
  public:
    // Waits for a peer, which reaches it by connectSubject().
    [[nodiscard]] static Result<Circuit> accept(const Transport& under) {
        uint32_t id = kNoId;
        const char* subject = nullptr;
        const pelmoStatus status = vcCreateAccept(&id, &subject, number(under.id()));
        if (status != kStatusSuccess) return Error(status);
        return Circuit(id, subject);
    }

    [[nodiscard]] static Result<Circuit> connect(const Transport& under, Name connectSubject) {
        uint32_t id = kNoId;
        const pelmoStatus status = vcCreateConnect(&id, connectSubject.c_str(), number(under.id()));
        if (status != kStatusSuccess) return Error(status);
        return Circuit(id, "");
    }

    // Until both ends know each other. Not on a thread that dispatches the library's work queue.
    Result<void> wait(Seconds limit) const {
        return detail::resultOf(vcWaitForConnection(id_, limit.count()));
    }

    // Of an accepting end; empty for others.
    [[nodiscard]] const std::string& connectSubject() const { return subject_; }

  private:
    Circuit(uint32_t id, const char* subject) : Transport(id), subject_(subject) {}

    std::string subject_;
};

// Queues

enum LimitPolicy : uint32_t {
    NoLimit = kLimitNone,
    DiscardNew = kLimitDiscardNew,
    DiscardFirst = kLimitDiscardFirst,
    DiscardLast = kLimitDiscardLast,
};

// Of messages that wait; how many are dropped at once (runtime/queue.h).
struct Limit {
    LimitPolicy policy = NoLimit;
    uint32_t most = 0;
    uint32_t discard = 0;
};

struct QueueOptions {
    Limit limit = {};
    std::string name = {};
    uint32_t priority = 1;  // in a group: the highest comes first
};

namespace detail {

// Runs of a queue or group that were asked to stop and haven't returned. While there are any,
// others wait for a short time only and wake the queue again: the stop's own wake may have met them
// and not the one that was on its way to its wait.
inline std::atomic<uint32_t> stopping{0};
inline constexpr double kStoppingWait = 0.01;  // seconds

}  // namespace detail

// What queues and groups of them have in common.
template <auto dispatchCall, auto wakeCall>
class Dispatchable {
  public:
    // One step: true where something ran, false where nothing came in time or a wake came.
    Result<bool> dispatch(Seconds limit) const {
        const pelmoStatus status = dispatchCall(id_, limit.count());
        if (status == kStatusSuccess) return true;
        if (status == kStatusTimeout || status == kStatusInterrupted) return false;
        return Error(status);
    }

    // Dispatches until a stop is requested, by any thread or callback, and then returns after the
    // callback that runs. Any number of threads may run it, with one stop or with one each. Fails
    // where the queue or the library has ended. A wake may be left, so that the next wait ends at
    // once.
    Result<void> run(std::stop_token stop) const {
        bool asked = false;
        pelmoStatus status = kStatusSuccess;
        {
            const std::stop_callback wakes(stop, [&asked, id = id_] {
                asked = true;
                ++detail::stopping;
                (void)wakeCall(id);
            });
            while (status == kStatusSuccess && !stop.stop_requested())
                status = step();
        }
        if (asked) --detail::stopping;
        (void)wakeCall(id_);  // for others with the same stop
        return detail::resultOf(status);
    }

    // Ends the wait of a dispatch, or the next one. Safe in signal handlers.
    Result<void> wake() const { return detail::resultOf(wakeCall(id_)); }

  protected:
    explicit Dispatchable(uint32_t id) : id_(id) {}

    uint32_t id_;

  private:
    pelmoStatus step() const {
        const bool othersStop = detail::stopping != 0;
        const pelmoStatus status = dispatchCall(id_, othersStop ? detail::kStoppingWait : -1);
        if (status == kStatusTimeout && othersStop) (void)wakeCall(id_);
        return status == kStatusTimeout || status == kStatusInterrupted ? kStatusSuccess : status;
    }
};

class Queue : public Dispatchable<pelmoQueue_TimedDispatch, pelmoQueue_Wake> {
  public:
    [[nodiscard]] static Result<Queue> make(const QueueOptions& options = {}) {
        uint32_t id = kNoId;
        pelmoStatus status = pelmoQueue_Create(&id);
        if (status != kStatusSuccess) return Error(status);
        Queue made(id);
        const Limit& limit = options.limit;
        if (limit.policy != NoLimit) {
            status = pelmoQueue_SetLimitPolicy(id, limit.policy, limit.most, limit.discard);
        }
        if (status == kStatusSuccess && !options.name.empty()) {
            status = pelmoQueue_SetName(id, options.name.c_str());
        }
        if (status == kStatusSuccess && options.priority != 1) {
            status = pelmoQueue_SetPriority(id, options.priority);
        }
        if (status != kStatusSuccess) return Error(status);
        return made;
    }

    // The one that is always there. No thread dispatches it unless the program does.
    [[nodiscard]] static Queue standard() { return Queue(kDefaultQueueId); }

    Queue(Queue&& other) noexcept
        : Dispatchable(std::exchange(other.id_, kNoId)), hook_(std::move(other.hook_)) {}
    Queue& operator=(Queue&& other) noexcept {
        std::swap(id_, other.id_);
        std::swap(hook_, other.hook_);
        return *this;
    }
    ~Queue() {
        if (hook_ != nullptr) (void)pelmoQueue_SetHook(id_, nullptr, nullptr);
        if (id_ != kNoId && id_ != kDefaultQueueId)
            (void)pelmoQueue_DestroyEx(id_, nullptr, nullptr);
    }

    // Messages on a subject, one a call: function(MessageView), or function().
    template <detail::MessageCallback Function>
    [[nodiscard]] Result<Listener> listen(const Transport& transport,
                                          Name subject,
                                          Function&& function) const {
        using Call = detail::CallbackOf<std::decay_t<Function>>;
        return Event::make<Listener>(
            std::forward<Function>(function), [&](uint32_t* id, void* closure) {
                return pelmoEvent_CreateListener(id, id_, Call::onMessage, number(transport.id()),
                                                 subject.c_str(), closure);
            });
    }

    // The same with up to 128 a call, as many as wait: function(std::span<const MessageView>).
    template <std::invocable<std::span<const MessageView>> Function>
    [[nodiscard]] Result<Listener> listenMany(const Transport& transport,
                                              Name subject,
                                              Function&& function) const {
        using Call = detail::CallbackOf<std::decay_t<Function>>;
        return Event::make<Listener>(std::forward<Function>(function), [&](uint32_t* id,
                                                                           void* closure) {
            return pelmoEvent_CreateVectorListenerEx(id, id_, Call::onBatch, number(transport.id()),
                                                     subject.c_str(), closure, closure);
        });
    }

    // Again and again, the first time one interval from now: function().
    template <std::invocable<> Function>
    [[nodiscard]] Result<Timer> every(Seconds interval, Function&& function) const {
        using Call = detail::CallbackOf<std::decay_t<Function>>;
        return Event::make<Timer>(
            std::forward<Function>(function), [&](uint32_t* id, void* closure) {
                return pelmoEvent_CreateTimer(id, id_, Call::onMessage, interval.count(), closure);
            });
    }

    // Whenever the descriptor can be read or written: function(). The descriptor stays the
    // caller's, and open for longer than the Io.
    template <std::invocable<> Function>
    [[nodiscard]] Result<Io> watch(int descriptor,
                                   pelmoIoCondition condition,
                                   Function&& function) const {
        using Call = detail::CallbackOf<std::decay_t<Function>>;
        return Event::make<Io>(std::forward<Function>(function), [&](uint32_t* id, void* closure) {
            return pelmoEvent_CreateIO(id, id_, Call::onMessage, descriptor, condition, closure);
        });
    }

    [[nodiscard]] uint32_t count() const {
        uint32_t count = 0;
        (void)pelmoQueue_GetCount(id_, &count);
        return count;
    }

    // Called after each post, on the posting thread: for an event loop of one's own, which then
    // dispatches with a limit of 0 (runtime/queue.h). Stays until the next one, or the queue's end.
    // Not within the hook itself.
    template <std::invocable<> Function>
    Result<void> hook(Function&& function) {
        using Call = detail::CallbackOf<std::decay_t<Function>>;
        auto made = std::make_unique<Call>(std::forward<Function>(function));
        const auto call = [](uint32_t, void* closure) noexcept {
            std::invoke(static_cast<Call*>(static_cast<detail::Callback*>(closure))->function);
        };
        const pelmoStatus status =
            pelmoQueue_SetHook(id_, call, static_cast<detail::Callback*>(made.get()));
        if (status == kStatusSuccess) hook_ = std::move(made);
        return detail::resultOf(status);
    }

    [[nodiscard]] QueueId id() const { return QueueId{id_}; }

  private:
    explicit Queue(uint32_t id) : Dispatchable(id) {}

    std::unique_ptr<detail::Callback> hook_;
};

// Queues that are dispatched as one: that of the highest priority first, equal ones in turn. It
// keeps none of them alive; one that has ended is passed over.
class QueueGroup : public Dispatchable<pelmoQueueGroup_TimedDispatch, pelmoQueueGroup_Wake> {
  public:
    [[nodiscard]] static Result<QueueGroup> make() {
        uint32_t id = kNoId;
        const pelmoStatus status = pelmoQueueGroup_Create(&id);
        if (status != kStatusSuccess) return Error(status);
        return QueueGroup(id);
    }

    QueueGroup(QueueGroup&& other) noexcept : Dispatchable(std::exchange(other.id_, kNoId)) {}
    QueueGroup& operator=(QueueGroup&& other) noexcept {
        std::swap(id_, other.id_);
        return *this;
    }
    ~QueueGroup() {
        if (id_ != kNoId) (void)pelmoQueueGroup_Destroy(id_);
    }

    Result<void> add(const Queue& queue) {
        return detail::resultOf(pelmoQueueGroup_Add(id_, number(queue.id())));
    }
    Result<void> remove(const Queue& queue) {
        return detail::resultOf(pelmoQueueGroup_Remove(id_, number(queue.id())));
    }

    [[nodiscard]] QueueGroupId id() const { return QueueGroupId{id_}; }

  private:
    explicit QueueGroup(uint32_t id) : Dispatchable(id) {}
};

// A thread that dispatches a queue or a group, to its own end or theirs.
class Dispatcher {
  public:
    template <typename QueueOrGroup>
    requires std::same_as<QueueOrGroup, Queue> || std::same_as<QueueOrGroup, QueueGroup>
    [[nodiscard]] static Result<Dispatcher> start(const QueueOrGroup& from) {
        uint32_t id = kNoId;
        const pelmoStatus status =
            pelmoDispatcher_CreateEx(&id, number(from.id()), forever.count());
        if (status != kStatusSuccess) return Error(status);
        return Dispatcher(id);
    }

    Dispatcher(Dispatcher&& other) noexcept : id_(std::exchange(other.id_, kNoId)) {}
    Dispatcher& operator=(Dispatcher&& other) noexcept {
        std::swap(id_, other.id_);
        return *this;
    }
    // Waits for the thread, unless it is the calling one.
    ~Dispatcher() {
        if (id_ != kNoId) (void)pelmoDispatcher_Destroy(id_);
    }

    [[nodiscard]] DispatcherId id() const { return DispatcherId{id_}; }

  private:
    explicit Dispatcher(uint32_t id) : id_(id) {}

    uint32_t id_;
};

template <std::invocable<Result<MessageView>> Function>
Result<Request> Transport::request(const Queue& queue,
                                   const Message& message,
                                   Seconds limit,
                                   Function&& function) const {
    if (message.rawStatus() != kStatusSuccess) return Error(message.rawStatus());
    using Call = detail::CallbackOf<std::decay_t<Function>>;
    return Event::make<Request>(std::forward<Function>(function), [&](uint32_t* id, void* closure) {
        return pelmoTransport_SendRequestAsync(id, id_, number(queue.id()), message.raw(),
                                               Call::onReply, limit.count(), closure);
    });
}

}  // namespace pelmo
