#include "mqlink/socket_options.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace mqlink {

namespace {

// A peer that vanished is found by probes after 20 s of silence, every 10 s, or by data that stays
// unacknowledged; either way the kernel gives up at the first check past 45 s (tcp(7)).
constexpr int tcp_keepidle_s = 20;
constexpr int tcp_keepintvl_s = 10;
constexpr int tcp_user_timeout_ms = 45000;

void set(int socket, int level, int option, int value)
{
    setsockopt(socket, level, option, &value, sizeof value);
}

}  // namespace

void set_socket_options(int socket)
{
    fcntl(socket, F_SETFD, FD_CLOEXEC);
    set(socket, IPPROTO_TCP, TCP_NODELAY, 1);  // or a small packet waits for the peer's next ACK
    set(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
    set(socket, IPPROTO_TCP, TCP_KEEPIDLE, tcp_keepidle_s);
    set(socket, IPPROTO_TCP, TCP_KEEPINTVL, tcp_keepintvl_s);
    set(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, tcp_user_timeout_ms);
}

void acknowledge_at_once(int socket)
{
    set(socket, IPPROTO_TCP, TCP_QUICKACK, 1);
}

bool has_unsent_bytes(int socket)
{
    int bytes = 0;
    return ioctl(socket, SIOCOUTQ, &bytes) == 0 && bytes > 0;
}

}  // namespace mqlink
