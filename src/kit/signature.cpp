#include "kit/signature.h"

#include <dirent.h>
#include <nettle/base64.h>
#include <nettle/eddsa.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/text.h"
#include "kit/kit_members.h"

namespace am {

namespace {

constexpr size_t kNumberSize = sizeof PublicKey::number;
constexpr size_t kHeadSize = 2 + kNumberSize;  // "Ed" and the number
static_assert(sizeof PublicKey::key == ED25519_KEY_SIZE);

// The second line of a file, decoded: exactly `size` bytes that begin with "Ed".
bool readSecondLine(const char *path, uint8_t *bytes, size_t size) {
    const File file = openMember(path);
    char line[1024];
    if (!file || !fgets(line, sizeof line, file.get()) || strncmp(line, "untrusted comment:", 18) != 0 ||
        !strchr(line, '\n') || !fgets(line, sizeof line, file.get()))
        return false;
    const size_t length = strcspn(line, "\r\n");
    uint8_t decoded[BASE64_DECODE_LENGTH(sizeof line)];
    size_t count = sizeof decoded;
    base64_decode_ctx context;
    base64_decode_init(&context);
    if (!base64_decode_update(&context, &count, decoded, length, line) || !base64_decode_final(&context) ||
        count != size || memcmp(decoded, "Ed", 2) != 0)
        return false;
    memcpy(bytes, decoded, size);
    return true;
}

struct Signature {
    uint8_t number[kNumberSize];
    uint8_t bytes[ED25519_SIGNATURE_SIZE];
};

bool readSignature(const char *path, Signature &signature) {
    uint8_t content[kHeadSize + sizeof signature.bytes];
    if (!readSecondLine(path, content, sizeof content)) return false;
    memcpy(signature.number, content + 2, kNumberSize);
    memcpy(signature.bytes, content + kHeadSize, sizeof signature.bytes);
    return true;
}

bool isFolder(const char *path) {
    struct stat status {};
    return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

// The keys whose number the signature names: numbers are no secret, two keys may have the same.
struct Search {
    std::span<const uint8_t> bytes;
    const Signature &signature;
    bool numberKnown, valid;
};

bool tryKey(const char *path, void *context) {
    auto &search = *static_cast<Search *>(context);
    PublicKey key;
    if (!readPublicKey(path, key) || memcmp(key.number, search.signature.number, kNumberSize) != 0)
        return true;
    search.numberKnown = true;
    search.valid =
        ed25519_sha512_verify(key.key, search.bytes.size(), search.bytes.data(), search.signature.bytes) == 1;
    return !search.valid;
}

}  // namespace

bool readPublicKey(const char *path, PublicKey &key) {
    uint8_t content[kHeadSize + sizeof key.key];
    if (!readSecondLine(path, content, sizeof content)) return false;
    const char *const slash = strrchr(path, '/');
    copyText(key.name, slash ? slash + 1 : path);
    memcpy(key.number, content + 2, kNumberSize);
    memcpy(key.key, content + kHeadSize, sizeof key.key);
    return true;
}

bool signaturesRequired(const char *folder) {
    DIR *const entries = opendir(folder);
    if (!entries) return errno != ENOENT;
    bool found = false;
    errno = 0;
    while (const dirent *const entry = readdir(entries)) found = found || entry->d_name[0] != '.';
    const bool failed = errno != 0;
    (void)closedir(entries);
    return found || failed;
}

void forEachKeyFile(const char *folder, bool (*visit)(const char *path, void *context), void *context) {
    DIR *const entries = opendir(folder);
    if (!entries) return;
    for (bool more = true; more;) {
        const dirent *const entry = readdir(entries);
        if (!entry) break;
        char path[512];
        const int length = snprintf(path, sizeof path, "%s/%s", folder, entry->d_name);
        if (entry->d_name[0] != '.' && length > 0 && static_cast<size_t>(length) < sizeof path)
            more = visit(path, context);
    }
    (void)closedir(entries);
}

const char *signatureProblem(std::span<const uint8_t> bytes, const char *signaturePath, const char *keys) {
    if (access(signaturePath, F_OK) != 0) return "it has no signature";
    Signature signature;
    if (!readSignature(signaturePath, signature)) return "its signature is damaged, or no Ed25519 signature";
    Search search{bytes, signature, false, false};
    if (isFolder(keys))
        forEachKeyFile(keys, tryKey, &search);
    else
        (void)tryKey(keys, &search);
    if (search.valid) return nullptr;
    return search.numberKnown
               ? "its signature is wrong: the kit or the signature is another one, or has been changed"
               : "it is signed with a key that is not trusted here";
}

}  // namespace am
