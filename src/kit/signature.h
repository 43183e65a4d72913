// Signatures of kits, as signify(1) writes them and OpenWrt's usign: Ed25519 over the whole file, detached,
// in a text file of two lines.
//
//   public key   "untrusted comment: ...", then base64 of "Ed", 8 bytes of the key's number, 32 of the key
//   signature    "untrusted comment: ...", then base64 of "Ed", the number of the key, 64 bytes of signature
//
// All of these files are untrusted, but for what the administrator put into the folder of keys.  Event-loop
// thread, or a program without one.
#pragma once
#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr char kKeysDir[] = "/etc/korvid/keys";

namespace am {

struct PublicKey {
    char name[64];  // of its file
    uint8_t number[8];
    uint8_t key[32];
};

// False: no readable key file.
[[nodiscard]] bool readPublicKey(const char *path, PublicKey &key);

// Whether kits have to be signed: unless the folder is missing, or has no file but hidden ones.  A folder
// that cannot be looked into counts as one with keys, and so does a key that cannot be read.
bool signaturesRequired(const char *folder);

// Calls visit(path, context) for every file that may be a key, until it returns false.
void forEachKeyFile(const char *folder, bool (*visit)(const char *path, void *context), void *context);

// Null when the signature is of these bytes by one of the keys in the folder, or by the one key where `keys`
// is a file; else why not.
[[nodiscard]] const char *signatureProblem(std::span<const uint8_t> bytes, const char *signaturePath,
                                           const char *keys);

}  // namespace am
