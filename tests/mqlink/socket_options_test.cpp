#include "mqlink/socket_options.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/loopback_connection.h"

namespace mqlink {
namespace {

TEST(SocketOptionsTest, ATcpConnectionGetsAllOfThem)
{
    const LoopbackConnection connection;
    const int socket = connection.socket();
    set_socket_options(socket);
    EXPECT_EQ(FD_CLOEXEC, fcntl(socket, F_GETFD));
    EXPECT_EQ(1, connection.option(IPPROTO_TCP, TCP_NODELAY));
    EXPECT_EQ(1, connection.option(SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(20, connection.option(IPPROTO_TCP, TCP_KEEPIDLE));
    EXPECT_EQ(10, connection.option(IPPROTO_TCP, TCP_KEEPINTVL));
    EXPECT_EQ(45000, connection.option(IPPROTO_TCP, TCP_USER_TIMEOUT));
}

TEST(SocketOptionsTest, AUnixSocketIsKeptFromChildrenAndOtherwiseLeftAlone)
{
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
    set_socket_options(ends[0]);
    EXPECT_EQ(FD_CLOEXEC, fcntl(ends[0], F_GETFD));
    close(ends[0]);
    close(ends[1]);
}

TEST(SocketOptionsTest, TheNextAckIsSentAtOnce)
{
    const LoopbackConnection connection;
    const int off = 0;  // as the kernel does after a few answers to packets
    ASSERT_EQ(0, setsockopt(connection.socket(), IPPROTO_TCP, TCP_QUICKACK, &off, sizeof off));
    acknowledge_at_once(connection.socket());
    EXPECT_EQ(1, connection.option(IPPROTO_TCP, TCP_QUICKACK));
}

TEST(SocketOptionsTest, BytesCountAsUnsentUntilThePeerHasTakenThem)
{
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
    EXPECT_FALSE(has_unsent_bytes(ends[0]));
    ASSERT_EQ(1, write(ends[0], "x", 1));
    EXPECT_TRUE(has_unsent_bytes(ends[0]));
    char byte;
    ASSERT_EQ(1, read(ends[1], &byte, 1));
    EXPECT_FALSE(has_unsent_bytes(ends[0]));
    EXPECT_FALSE(has_unsent_bytes(-1));
    close(ends[0]);
    close(ends[1]);
}

}  // namespace
}  // namespace mqlink
