// kit check and kit keys.
#include "ctl/kit_commands.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "ctl/kit_check.h"
#include "ctl/table.h"
#include "kit/signature.h"

namespace ctl {

namespace {

bool addKey(const char *path, void *context) {
    auto &table = *static_cast<Table *>(context);
    am::PublicKey key;
    const char *const name = strrchr(path, '/') + 1;
    char number[40] = "no key: nothing is verified with it";
    const bool readable = am::readPublicKey(path, key);
    for (size_t i = 0; readable && i < sizeof key.number; i++)
        snprintf(number + 2 * i, 3, "%02x", key.number[i]);
    table.add(name);
    table.add(number, readable ? Colour::none : Colour::bad);
    return true;
}

int listKeys(const CommandLine &line) {
    const char *const folder = line.key ? line.key : kKeysDir;
    if (!am::signaturesRequired(folder)) {
        printf("there is no key in %s: kits need no signature\n", folder);
        return kDone;
    }
    static constexpr Column kColumns[] = {{"KEY"}, {"NUMBER"}};
    static Table table(kColumns);
    am::forEachKeyFile(folder, addKey, &table);
    table.print();
    printf("only kits that are signed with one of these keys are installed\n");
    return kDone;
}

}  // namespace

int offlineKitCommand(const CommandLine &line) {
    if (strcmp(line.word(1), "keys") == 0 && line.wordCount == 2) return listKeys(line);
    if (strcmp(line.word(1), "check") == 0 && line.wordCount == 3) return checkKit(line.word(2), line.key);
    fprintf(stderr,
            "usage: korvidctl kit check [--key FILE] FILE\n"
            "       korvidctl kit install [--save] FILE\n"
            "       korvidctl kit keys [--key FOLDER]\n");
    return kUsage;
}

}  // namespace ctl
