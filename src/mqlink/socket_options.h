#pragma once

namespace mqlink {

/// Prepares a connected socket for a client that may be busy for hours: small packets leave at
/// once, the kernel finds a peer that vanished within 60 s, and a script's children do not inherit
/// the socket. On a Unix socket the options of TCP fail without harm.
void set_socket_options(int socket);

/// Has the kernel send the next ACK at once. The option does not last (tcp(7)).
void acknowledge_at_once(int socket);

/// Whether the kernel still holds bytes that the peer's kernel has not acknowledged.
bool has_unsent_bytes(int socket);

}  // namespace mqlink
