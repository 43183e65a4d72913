// A kit as it was when its signature was verified: a copy in memory that nobody can change any more, root
// included.  All that is unpacked comes from this copy, so that the file on flash may change, or be
// exchanged, at any moment.
//
// Where no signatures are required there is no copy, and the kit is what lies on flash.  Event-loop thread.
#pragma once
namespace am {

// Makes the copy and verifies it, if signatures are required; drops the one before.  False when the kit must
// not be used: told with one ERROR line and noted for the status.
[[nodiscard]] bool verifyKit(const char *path);

void dropVerifiedKit();

// Where the kit is read from: the verified copy, `path` where none is required, null where one is required
// and missing.
const char *verifiedKit(const char *path);

// Whether the last kit was refused for want of a signature.
bool kitUnverified();

}  // namespace am
