// Named network namespaces: create, enter, delete and inspect the entries of
// /var/run/netns, and open sockets inside a namespace.
//
// A named namespace is a file in the run directory onto which a namespace's
// /proc file is bind-mounted; the mount keeps the namespace alive without any
// process in it, and the file's inode identifies it. The layout is the one
// iproute2 uses, so `ip netns` and these functions see each other's
// namespaces. Functions that change namespace move only the calling thread
// and restore it before they return (see NsUtils.h); they must not be
// interleaved with other namespace-sensitive work on that thread.
//
// Errors: functions whose callers decide on errno (socketAt, validateNetNs)
// return -1 or false with errno set; the others raise Brio::ErrnoException
// whose message starts with the failing step's text. Everything is traced on
// the "Corvid" facility (failures at level 1, steps at level 5).
#pragma once

#include <Brio/Types.h>

#include <sys/types.h>

namespace Corvid {

// The name under which mountDefaultNetNs() publishes the process's own
// namespace, and the name that means "where the caller already is" to
// socketAt(). It equals NamespaceName's default value, "default", so an
// unconfigured NamespaceName attribute opens sockets in the agent's own
// namespace without a lookup in the run directory; iproute2 has no name of
// its own for the initial namespace, so nothing collides with it.
inline constexpr char DEFAULT_NS[] = "default";

inline constexpr char NS_RUN_DIR[] = "/var/run/netns";

// Creates the run directory if missing (mode 0755); false when it cannot.
bool mkNsRunDir();
// Makes the run directory a shared mount point, so namespaces mounted later
// propagate to every mount namespace that sees it; false when it cannot.
bool remountNsRunDir();
// Opens the run directory for listing; -1 (errno set) when it cannot.
int openNsRunDir();

// Whether the run directory holds an entry of that name.
bool netNsExists(char const* name);
// The inode of the entry, which identifies the namespace; 0 when absent.
ino_t netNsInode(char const* name);

// Creates a named namespace with loopback up. Raises when the name exists.
void netNsAdd(char const* name);
// As netNsAdd, but an existing usable namespace of that name is kept (the
// call then does nothing), and a stale entry (a file without a namespace
// behind it, left by a crash) is replaced.
void netNsAddEvenIfPresent(char const* name);
// Unmounts and removes the entry; a missing entry is only traced.
void netNsDelete(char const* name);
// Moves the calling thread into the named namespace (for good).
void setNsByName(char const* name);

// Opens a socket (close-on-exec) inside namespace `ns` and returns the
// caller to where it was. `ns` equal to DEFAULT_NS, or empty, opens it where
// the caller is. Returns the descriptor, or -1 with errno set: ENOENT when
// the namespace does not exist, EINVAL when its entry is not (yet) a
// namespace.
int socketAt(int domain, int type, int protocol, char const* ns);

// Publishes the process's own namespace as DEFAULT_NS (replacing a stale
// entry), so other processes can enter it by name.
void mountDefaultNetNs();

// Moves kernel interface `intf` from namespace `fromNs` to `toNs`.
void moveIntfNetNs(char const* intf, char const* fromNs, char const* toNs);

// Checks a namespace handle. Returns false (errno set) when the handle
// cannot be examined at all; otherwise *usable tells whether it is a network
// namespace that can be entered (false for a plain file that nothing is
// bind-mounted onto yet).
bool validateNetNs(int fd, bool* usable);
bool validateNetNs(char const* name, bool* usable);

}  // namespace Corvid
