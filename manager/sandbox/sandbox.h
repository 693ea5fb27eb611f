// sandbox.h - a private mount namespace in which the sub-service can run as root without
// touching the host: a fresh tmpfs on /dev (null, zero, random, urandom, the fd link), a
// fresh tmpfs on /tmp, and an overlay on /etc whose upper layer holds the release files of
// the distribution being simulated. Tests run in parallel, each in its own sandbox.
#pragma once

// Enters the sandbox. The first call unshares the mount namespace (for a caller who is not
// root, inside a new user namespace that maps it to root; the calling process must
// be single-threaded then) and mounts; later calls only empty /tmp and /dev of what earlier
// runs left. Returns 0, or -1 with a message on standard error.
int SandboxEnter(void);
// 1 when this process is inside a sandbox it entered.
int SandboxActive(void);
// Writes Text to the release file Path under /etc (NULL Text removes the file). Only inside
// the sandbox. Returns 0 or -1.
int SandboxSetFile(const char *Path, const char *Text);
// Removes the three release files that the sub-service probes, so that a test starts from
// a machine with no known distribution.
int SandboxClearReleaseFiles(void);
