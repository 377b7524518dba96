#include "support/loopback_connection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

namespace {

int require(int result, const char* what)
{
    if (result < 0) {
        throw std::runtime_error(std::string("test set-up failed: ") + what);
    }
    return result;
}

}  // namespace

LoopbackConnection::LoopbackConnection()
{
    const int listener = require(::socket(AF_INET, SOCK_STREAM, 0), "socket");
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr* const any = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = sizeof address;
    require(bind(listener, any, length), "bind");
    require(listen(listener, 1), "listen");
    require(getsockname(listener, any, &length), "getsockname");
    _near = require(::socket(AF_INET, SOCK_STREAM, 0), "socket");
    require(connect(_near, any, length), "connect");
    _far = require(accept(listener, nullptr, nullptr), "accept");
    close(listener);
}

LoopbackConnection::~LoopbackConnection()
{
    close(_near);
    close(_far);
}

void LoopbackConnection::send_from_peer(const std::string& bytes)
{
    require(static_cast<int>(send(_far, bytes.data(), bytes.size(), 0)), "send");
    pollfd readable = {};
    readable.fd = _near;
    readable.events = POLLIN;
    // Not ppoll(), which a VirtualClock replaces.
    require(poll(&readable, 1, 20000) - 1, "receive");
}

int LoopbackConnection::option(int level, int name) const
{
    int value = -1;
    socklen_t length = sizeof value;
    require(getsockopt(_near, level, name, &value, &length), "getsockopt");
    return value;
}

void LoopbackConnection::reset_from_peer()
{
    const linger at_once = {1, 0};
    require(setsockopt(_far, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once), "setsockopt");
    close(std::exchange(_far, -1));
}

bool LoopbackConnection::is_open() const
{
    return send(_near, "x", 1, MSG_NOSIGNAL) == 1;
}
