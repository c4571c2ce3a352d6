#include "lib/runtime/socket_error.h"

#include <cerrno>

namespace {

constexpr struct {
    int error;
    int code;
} kCodes[] = {
    {EINTR, 10004},           {EBADF, 10038},           {EACCES, 10013},
    {EFAULT, 10014},          {EINVAL, 10022},          {EMFILE, 10024},
    {ENFILE, 10024},          {EAGAIN, 10035},          {EINPROGRESS, 10036},
    {EALREADY, 10037},        {ENOTSOCK, 10038},        {EDESTADDRREQ, 10039},
    {EMSGSIZE, 10040},        {EPROTOTYPE, 10041},      {ENOPROTOOPT, 10042},
    {EPROTONOSUPPORT, 10043}, {ESOCKTNOSUPPORT, 10044}, {EOPNOTSUPP, 10045},
    {EPFNOSUPPORT, 10046},    {EAFNOSUPPORT, 10047},    {EADDRINUSE, 10048},
    {EADDRNOTAVAIL, 10049},   {ENETDOWN, 10050},        {ENETUNREACH, 10051},
    {ENETRESET, 10052},       {ECONNABORTED, 10053},    {ECONNRESET, 10054},
    {ENOBUFS, 10055},         {EISCONN, 10056},         {ENOTCONN, 10057},
    {ESHUTDOWN, 10058},       {EPIPE, 10058},           {ETOOMANYREFS, 10059},
    {ETIMEDOUT, 10060},       {ECONNREFUSED, 10061},    {EHOSTDOWN, 10064},
    {EHOSTUNREACH, 10065},
};

constexpr struct {
    int code;
    const char* text;
} kTexts[] = {
    {10004, "The blocking call was cancelled"},
    {10014, "Argument is too small"},
    {10022, "Invalid parameter"},
    {10024, "No more file descriptors are available"},
    {10035, "The socket is marked as non-blocking and the connection can not be completed now."},
    {10036, "A blocking Windows Sockets call is in progress"},
    {10038, "The descriptor is not a socket"},
    {10039, "A destination address is required"},
    {10045, "The operation is not supported on this socket."},
    {10047, "The specified address family is not supported by this protocol"},
    {10048, "Specified address is in use"},
    {10049, "The specified address is not available from the local machine"},
    {10050, "Network subsystem is down"},
    {10051, "The network can't be reached from this host at this time"},
    {10055, "Not enough buffers available, too many connections"},
    {10056, "The socket is already connected"},
    {10057, "The socket is not connected"},
    {10060, "Attempt to connect timed out without establishing a connection"},
    {10061, "The attempt to connect was forcefully rejected"},
    {10065, "The host can't be reached from this host at this time"},
    {10093, "WINSOCK has not been initialized"},
};

}  // namespace

int socketErrorFromErrno(int error) {
    for (const auto& row : kCodes) {
        if (row.error == error) return row.code;
    }
    return error;
}

const char* socketErrorText(int code) {
    for (const auto& row : kTexts) {
        if (row.code == code) return row.text;
    }
    return "***Unknown***";
}
