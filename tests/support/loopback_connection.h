#pragma once

#include <string>

/// A TCP connection within this process, over the loopback interface.
class LoopbackConnection {
public:
    LoopbackConnection();
    ~LoopbackConnection();
    LoopbackConnection(const LoopbackConnection&) = delete;
    LoopbackConnection& operator=(const LoopbackConnection&) = delete;

    /// The client's end.
    int socket() const { return _near; }
    /// A socket option of the client's end (getsockopt(2)).
    int option(int level, int name) const;
    /// Returns once the client's end is readable.
    void send_from_peer(const std::string& bytes);
    /// Ends the connection with TCP's RST.
    void reset_from_peer();
    /// Whether the client's end can still send.
    bool is_open() const;

private:
    int _near;
    int _far;
};
