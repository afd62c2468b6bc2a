// The service manager's two protocols: sockets that it has opened, and what it is told
// (sd_notify(3), sd_listen_fds(3)). Without a manager both do nothing.
#ifndef TAVREL_TOOLS_AUTHD_SYSTEMD_H
#define TAVREL_TOOLS_AUTHD_SYSTEMD_H

#include <map>
#include <set>
#include <string>

namespace tavrel::tools {

// Listening sockets by their FileDescriptorName=, which are this process's from now on. Says in
// `*error` when one has none of the `known` names, or that of another.
std::map<std::string, int> PassedSockets(const std::set<std::string>& known, std::string* error);

// Tells the manager, `READY=1` for example.
void Notify(const std::string& state);

}  // namespace tavrel::tools

#endif
