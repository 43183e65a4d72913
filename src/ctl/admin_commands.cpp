// Administration: the state, exports, kits.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/handle.h"
#include "core/paths.h"
#include "core/write_fully.h"
#include "ctl/client.h"
#include "ctl/commands.h"
#include "ctl/json.h"
#include "ctl/kit_commands.h"
#include "ctl/screen.h"
#include "show/answer.h"

namespace ctl {

namespace {

// The end of a change: it is saved if that is wanted, and programs get the daemon's status.
int finish(const CommandLine &line, const Reply &status) {
    if (line.save) return saveCommand(line);
    if (line.json) printJson(status);
    return kDone;
}

int setState(const char *state, const CommandLine &line) {
    static blob_buf buffer;
    am::Answer request(buffer);
    request.text("adminState", state);
    if (!change("SETappMonAdminState", request.message())) return kFailed;
    Reply reply;
    ask("status", nullptr, reply);
    const bool on = reply.fields().table("kernel").flag("mirroring");
    if (!line.json) printf("mirroring is %s\n", on ? "on" : "off");
    const int ended = finish(line, reply);
    return on == (strcmp(state, "enable") == 0) ? ended : kFailed;
}

// The first line of a file; false, and told, when it cannot be read.
bool readPassword(const char *path, char (&password)[256]) {
    const am::File file(fopen(path, "re"));
    if (!file || !fgets(password, sizeof password, file.get())) {
        fprintf(stderr, "korvidctl: %s: %s\n", path, file ? "empty" : strerror(errno));
        return false;
    }
    password[strcspn(password, "\r\n")] = '\0';
    return true;
}

// The daemon's folder of kits, as this program sees it: a package for routers gives the daemon a root of its
// own.
const char *flashFolder() {
    static constexpr char kOfPackage[] = "/var/lib/korvid/flash";
    return access(kFlash, F_OK) != 0 && access(kOfPackage, F_OK) == 0 ? kOfPackage : kFlash;
}

// The daemon's user, whose folder it is, has to read it.
void giveToOwnerOf(const char *folder, int fd) {
    struct stat status {};
    if (stat(folder, &status) == 0) (void)!fchown(fd, status.st_uid, status.st_gid);
}

// A file on its way to another's place: a copy beside that, which goes unless it is put there.
class Copy {
  public:
    explicit Copy(const char *to) : to_(to) { snprintf(beside_, sizeof beside_, "%s.new", to); }
    ~Copy() {
        if (made_) (void)unlink(beside_);
    }
    Copy(const Copy &) = delete;
    Copy &operator=(const Copy &) = delete;

    // False, and told on standard error: there is no such file, or no room for the whole of it.
    bool make(const char *from) {
        const int source = open(from, O_RDONLY | O_CLOEXEC);
        const int target = source < 0 ? -1 : open(beside_, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        made_ = target >= 0;
        if (made_) giveToOwnerOf(flashFolder(), target);
        const bool copied = made_ && am::copyFully(source, target) && fsync(target) == 0;
        if (!copied) tellFailure(from);
        if (source >= 0) (void)close(source);
        if (target >= 0) (void)close(target);
        return copied;
    }
    bool putInPlace() {
        if (rename(beside_, to_) == 0) {
            made_ = false;
            return true;
        }
        tellFailure(beside_);
        return false;
    }

  private:
    void tellFailure(const char *from) const {
        fprintf(stderr, "korvidctl: %s cannot be copied to %s: %s\n", from, to_, strerror(errno));
    }

    const char *to_;
    char beside_[512];
    bool made_ = false;
};

int install(const CommandLine &line) {
    const char *const file = line.word(2);
    if (line.wordCount != 3) {
        fprintf(stderr, "usage: korvidctl kit install [--save] FILE\n");
        return kUsage;
    }
    if (!bringKit(file)) return kFailed;
    static blob_buf buffer;
    am::Answer request(buffer);
    request.text("reloadSignFile", "force");
    const bool accepted = change("SETappMonUpdateSignatureFile", request.message());
    Reply reply;
    ask("status", nullptr, reply);
    const Fields kit = reply.fields().table("kit");
    if (!accepted || kit.flag("refused")) {
        fprintf(stderr, "korvidctl: the kit was refused: %s\n", kit.text("refusal"));
        return kFailed;
    }
    if (line.json) return finish(line, reply);
    printf("kit %s with %s applications is installed, its engine %s\n",
           *kit.text("version") ? shown(kit.text("version")).text : "without a version",
           numberText(kit.number("applications")).text, kit.flag("engine") ? "runs" : "does not run");
    if (!line.save) puts("a restart installs it again once that is saved (korvidctl save, or --save)");
    return finish(line, reply);
}

}  // namespace

bool bringKit(const char *file) {
    char target[128], signature[512], targetSignature[136];
    snprintf(target, sizeof target, "%s/%s", flashFolder(), kKitName);
    snprintf(signature, sizeof signature, "%s.sig", file);
    snprintf(targetSignature, sizeof targetSignature, "%s.sig", target);
    if (strcmp(file, target) == 0) return true;
    // Both are here before one of them takes its place: the kit that was there stays with its signature.
    Copy kit(target), signatureOfKit(targetSignature);
    const bool hasOne = access(signature, F_OK) == 0;
    if (!kit.make(file) || (hasOne && !signatureOfKit.make(signature))) return false;
    // A signature that was there before is not this kit's.
    if (hasOne ? !signatureOfKit.putInPlace() : unlink(targetSignature) != 0 && errno != ENOENT) return false;
    return kit.putInPlace();
}

int enableCommand(const CommandLine &line) {
    return setState("enable", line);
}

int disableCommand(const CommandLine &line) {
    return setState("disable", line);
}

int exportCommand(const CommandLine &line) {
    const bool enforcement = strcmp(line.word(1), "enforcement") == 0;
    if (line.wordCount != 2 || !line.url || (!enforcement && strcmp(line.word(1), "monitoring") != 0)) {
        fprintf(stderr,
                "usage: korvidctl export enforcement|monitoring --url FOLDER [--user USER --password-file "
                "FILE]\n");
        return kUsage;
    }
    char password[256] = {};
    if (line.passwordFile && !readPassword(line.passwordFile, password)) return kFailed;
    static blob_buf buffer;
    am::Answer request(buffer);
    request.text("username", line.user ? line.user : "");
    request.text("password", password);
    request.text("filePath", line.url);
    explicit_bzero(password, sizeof password);
    if (!change(enforcement ? "GETavDpiStats" : "GETavAppMonStats", request.message())) return kFailed;
    if (!line.json) {
        puts("the upload has been started; the daemon's log tells when it fails");
        return kDone;
    }
    Reply reply;
    ask("status", nullptr, reply);
    printJson(reply);
    return kDone;
}

int kitCommand(const CommandLine &line) {
    if (strcmp(line.word(1), "install") == 0) return install(line);
    return offlineKitCommand(line);
}

}  // namespace ctl
