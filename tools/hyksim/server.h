// server.h -- `hyksim serve`: the host of this process served on a Unix
// socket to tools of other processes (lusctl --host PATH).  Requests and
// answers are lines of JSON (tools/lusctl/remote.cpp has both sides); this
// file is the socket, the connections and who may use them.
//
// Only the server's owner drives the host: the socket is created 0600 (0660
// for --allow-group) whatever the umask, in a directory no stranger can
// write, each peer's credentials are checked when it connects, and the path
// is taken only if nothing is there or a stale socket of a server that is
// gone -- never a file, never a live server's socket.  Nothing a peer sends
// can take more than the documented limits: the line, the connections at
// once, the threads of a takeover, the ports and portsets of the host.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "scenario.h"

namespace hyksimtool {

struct ServeOptions {
   std::string socketPath;
   std::string topology;             // a scenario run before serving ("" none)
   ScenarioOptions scenario;         // the host's module directory, seed and limits
   size_t maxLineBytes = 1 << 20;    // a request line
   uint32_t maxConnections = 64;     // connections served at once
   std::optional<gid_t> allowGroup;  // also serve peers of this group
   // MODULE:NAME=VALUE: parameters this host gives module MODULE ("NAME-BUILD")
   // whenever a tool loads it, after the tool's own (see ConfiguredParams).
   std::vector<std::string> moduleParams;
};

// The parameters a host configured for `module` (its --module-param's of
// that exact name), each `@PORTSET#INDEX` in a value replaced by that port's
// ID among `names` (ID -> "PORTSET#INDEX").  False with *error when a
// reference names no port.
bool ConfiguredParams(const std::vector<std::string> &moduleParams, const std::string &module,
                      const std::map<uint32_t, std::string> &names, std::vector<std::string> *out,
                      std::string *error);

// MODULE:NAME=VALUE, each part non-empty; "" or why not.
std::string CheckModuleParam(const std::string &given);

// Serves until a `shutdown` request, SIGINT or SIGTERM; every connection is
// then ended and the socket removed.  The host must have been started.
// Returns 0 when it stopped as asked, 1 when it could not start serving
// (the reason on `err`).
int Serve(const ServeOptions &options, std::ostream &out, std::ostream &err);

// ---- the pieces, each refusing with the reason ------------------------------------

// The directory that will hold the socket is the owner's or root's, and no
// one else can write it -- unless it is sticky (/tmp), where no one else can
// remove or rename what is ours.
bool CheckSocketDirectory(const std::string &socketPath, uid_t owner, std::string *error);

// Makes the path free for the socket: nothing there, or a socket no server
// answers on (removed).  A file of any other kind is refused and left as it
// is; so is a socket a live server answers on.
bool ClaimSocketPath(const std::string &socketPath, std::string *error);

// Whether a peer may drive the host: it runs as the server's user or as
// root, or (with --allow-group) its group or one of its user's groups is
// that group.  `peerGroups`: the groups of the peer's user.
bool PeerAllowed(const ucred &peer, uid_t owner, std::optional<gid_t> allowGroup,
                 const std::vector<gid_t> &peerGroups, std::string *why);

// The groups of a user as the group database has them (getgrouplist).
std::vector<gid_t> GroupsOfUser(uid_t uid);

}  // namespace hyksimtool
