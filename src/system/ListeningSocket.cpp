#include "system/ListeningSocket.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <map>
#include <mutex>

#include "storage/UniqueFd.h"
#include "system/ProcessOwnership.h"

namespace datacenter {
namespace {

const unsigned kTcpListen = 10;  // TCP_LISTEN in the kernel's state numbers
const int kReceiveTimeoutMs = 1000;

// Asks the kernel for the listening TCP sockets of one family.
bool dumpListeners(int family, int port, std::vector<ListeningSocket::Listener>& out) {
    const UniqueFd fd(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    if (!fd.valid()) {
        return false;
    }
    const timeval timeout{kReceiveTimeoutMs / 1000, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    struct {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } message{};
    message.header.nlmsg_len = sizeof(message);
    message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    message.request.sdiag_family = static_cast<__u8>(family);
    message.request.sdiag_protocol = IPPROTO_TCP;
    message.request.idiag_states = 1u << kTcpListen;
    if (::send(fd.get(), &message, sizeof(message), 0) != static_cast<ssize_t>(sizeof(message))) {
        return false;
    }
    alignas(nlmsghdr) char buffer[16384];
    for (;;) {
        ssize_t got = ::recv(fd.get(), buffer, sizeof(buffer), 0);
        if (got <= 0) {
            return false;
        }
        for (const nlmsghdr* header = reinterpret_cast<const nlmsghdr*>(buffer); NLMSG_OK(header, got);
             header = NLMSG_NEXT(header, got)) {
            if (header->nlmsg_type == NLMSG_DONE) {
                return true;
            }
            if (header->nlmsg_type == NLMSG_ERROR || header->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) {
                return false;
            }
            const inet_diag_msg* socket = static_cast<const inet_diag_msg*>(NLMSG_DATA(header));
            if (ntohs(socket->id.idiag_sport) != port) {
                continue;
            }
            ListeningSocket::Listener listener;
            listener.ipv6 = socket->idiag_family == AF_INET6;
            char text[INET6_ADDRSTRLEN] = {};
            ::inet_ntop(socket->idiag_family, socket->id.idiag_src, text, sizeof(text));
            listener.address = text;
            listener.inode = socket->idiag_inode;
            out.push_back(listener);
        }
    }
}

// Whether a connection to the loopback address of the family reaches `listener`.
bool reaches(const ListeningSocket::Listener& listener, bool ipv6) {
    if (ipv6) {
        return listener.ipv6 && (listener.address == "::1" || listener.address == "::");
    }
    return listener.ipv6 ? (listener.address == "::" || listener.address == "::ffff:127.0.0.1")
                         : (listener.address == "127.0.0.1" || listener.address == "0.0.0.0");
}

// A socket found to be the plugin's: the process and descriptor holding it.
struct Holder {
    std::string directory;
    int pid = 0;
    std::string descriptor;  // the name of the descriptor in /proc/PID/fd
};

std::mutex gHoldersMutex;
std::map<unsigned long, Holder> gHolders;  // by socket inode

// The answer last given for a port: while the same process holds the same
// listening socket, no other socket can take connections to that address
// and port (binding it fails with EADDRINUSE), so the kernel need not be
// asked again. Only a plugin that shares its own port (SO_REUSEPORT) or
// shuts its listener down while keeping it open could be fooled.
struct Answer {
    std::string dataDir;    // as the caller named it
    std::string directory;  // as the kernel names it
    unsigned long inode = 0;
    std::string address;
};
std::map<int, Answer> gAnswers;  // by port, under gHoldersMutex

std::string socketLink(unsigned long inode) {
    return "socket:[" + std::to_string(inode) + "]";
}

std::string descriptorTarget(int pid, const std::string& descriptor) {
    const std::string path = "/proc/" + std::to_string(pid) + "/fd/" + descriptor;
    char buffer[64];
    const ssize_t size = ::readlink(path.c_str(), buffer, sizeof(buffer) - 1);
    return size > 0 ? std::string(buffer, static_cast<size_t>(size)) : std::string();
}

// The descriptor of process `pid` that holds socket `inode`, or "".
std::string findDescriptor(int pid, unsigned long inode) {
    const std::string wanted = socketLink(inode);
    DIR* folder = ::opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (!folder) {
        return std::string();
    }
    std::string found;
    while (const dirent* entry = ::readdir(folder)) {
        if (entry->d_name[0] != '.' && descriptorTarget(pid, entry->d_name) == wanted) {
            found = entry->d_name;
            break;
        }
    }
    ::closedir(folder);
    return found;
}

// Whether the remembered holder of `inode` still holds it and is still the plugin's.
bool rememberedHolder(unsigned long inode, const std::string& directory) {
    Holder holder;
    {
        std::lock_guard<std::mutex> lock(gHoldersMutex);
        const auto found = gHolders.find(inode);
        if (found == gHolders.end() || found->second.directory != directory) {
            return false;
        }
        holder = found->second;
    }
    std::string reason;
    return descriptorTarget(holder.pid, holder.descriptor) == socketLink(inode) &&
           ProcessOwnership::sBelongsToDirectory(holder.pid, directory, reason);
}

// Whether a process of the plugin holds socket `inode`.
bool heldByPlugin(unsigned long inode, const std::string& directory, std::vector<int>& processes, bool& scanned) {
    if (rememberedHolder(inode, directory)) {
        return true;
    }
    if (!scanned) {
        processes = ProcessOwnership::sFind(directory);
        scanned = true;
    }
    for (const int pid : processes) {
        const std::string descriptor = findDescriptor(pid, inode);
        if (!descriptor.empty()) {
            std::lock_guard<std::mutex> lock(gHoldersMutex);
            gHolders[inode] = Holder{directory, pid, descriptor};
            return true;
        }
    }
    return false;
}

}  // namespace

bool ListeningSocket::sListeners(int port, std::vector<Listener>& out) {
    out.clear();
    return dumpListeners(AF_INET, port, out) && dumpListeners(AF_INET6, port, out);
}

std::string ListeningSocket::sPluginAddress(int port, const std::string& dataDir, std::string& reason) {
    std::vector<Listener> listeners;
    if (port <= 0 || port > 65535) {
        reason = "port " + std::to_string(port) + " is no TCP port";
        return std::string();
    }
    Answer answer;
    {
        std::lock_guard<std::mutex> lock(gHoldersMutex);
        const auto found = gAnswers.find(port);
        if (found != gAnswers.end()) {
            answer = found->second;
        }
    }
    if (!answer.address.empty() && answer.dataDir == dataDir && rememberedHolder(answer.inode, answer.directory)) {
        reason.clear();
        return answer.address;
    }
    const std::string directory = ProcessOwnership::sPhysicalDirectory(dataDir);
    if (!sListeners(port, listeners)) {
        reason = "the kernel does not tell who listens on port " + std::to_string(port);
        return std::string();
    }
    std::vector<int> processes;
    bool scanned = false;
    reason = "nothing listens on port " + std::to_string(port) + " of the loopback address";
    for (const bool ipv6 : {false, true}) {
        std::vector<unsigned long> reached;
        bool foreign = false;
        for (const Listener& listener : listeners) {
            if (reaches(listener, ipv6)) {
                reached.push_back(listener.inode);
                foreign = foreign || directory.empty() || !heldByPlugin(listener.inode, directory, processes, scanned);
            }
        }
        if (!reached.empty() && !foreign) {
            reason.clear();
            const std::string address = ipv6 ? "::1" : "127.0.0.1";
            if (reached.size() == 1) {
                std::lock_guard<std::mutex> lock(gHoldersMutex);
                gAnswers[port] = Answer{dataDir, directory, reached.front(), address};
            }
            return address;
        }
        if (foreign) {
            reason = "port " + std::to_string(port) + " is held by a process that is not the plugin's";
        }
    }
    return std::string();
}

}  // namespace datacenter
