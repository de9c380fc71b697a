#pragma once
// Who listens on a TCP port of the local host, as the kernel tells it. A
// plugin's port is recorded in a file other plugins can write, so before the
// core sends a plugin anything on that port it makes sure that the socket
// listening there is held by a process of that very plugin.
#include <string>
#include <vector>

namespace datacenter {

class ListeningSocket {
public:
    struct Listener {
        bool ipv6 = false;
        std::string address;  // as inet_ntop writes it: "127.0.0.1", "0.0.0.0", "::1", "::"
        unsigned long inode = 0;
    };

    // The TCP sockets listening on `port`, IPv4 and IPv6, from the kernel's
    // socket diagnostics (netlink, listeners only: no walk of every
    // connection as /proc/net/tcp does). False when the kernel cannot be asked.
    static bool sListeners(int port, std::vector<Listener>& out);

    // The loopback address ("127.0.0.1" or "::1") at which a connection to
    // `port` reaches only sockets held by processes of the plugin whose data
    // directory is `dataDir` (ProcessOwnership). Empty, with the reason in
    // `reason`, when nothing listens there or another process holds such a
    // socket. A socket found to be the plugin's is remembered with the
    // process and descriptor that hold it, so that a later call checks that
    // descriptor instead of scanning /proc again.
    static std::string sPluginAddress(int port, const std::string& dataDir, std::string& reason);
};

}  // namespace datacenter
