#include "rules.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "packet.h"

namespace engine {
namespace {

constexpr uint32_t kFirstPort = 10000, kPorts = 65536;
constexpr uint32_t kHighestId = UINT32_MAX - 1;  // ids above 65,535 make reports that the daemon must refuse
constexpr uint32_t kMostFlows = 16U << 20;

struct CloseFile {
    void operator()(FILE *file) const { (void)fclose(file); }
};

bool number(const char *text, uint32_t highest, uint32_t &value) {
    if (*text < '0' || *text > '9') return false;
    char *end = nullptr;
    errno = 0;
    const unsigned long parsed = strtoul(text, &end, 10);
    if (errno || *end || parsed > highest) return false;
    value = static_cast<uint32_t>(parsed);
    return true;
}

bool setOrNone(uint32_t &appId, const char *text) {
    if (strcmp(text, "none") != 0) return number(text, kHighestId, appId);
    appId = kNotReported;
    return true;
}

bool applyRule(Rules &rules, const char *word, const char *first, const char *second) {
    uint32_t key = 0, value = 0;
    if (second) {
        if (!number(second, kHighestId, value)) return false;
        if (!strcmp(word, "port") && number(first, kPorts - 1, key))
            rules.port[key] = value;
        else if (!strcmp(word, "proto") && number(first, 255, key))
            rules.proto[key] = value;
        else
            return false;
        return true;
    }
    if (!first) return false;
    if (!strcmp(word, "default")) return setOrNone(rules.other, first);
    if (!strcmp(word, "state")) return number(first, UINT32_MAX, rules.flowState);
    if (!strcmp(word, "flows") && number(first, kMostFlows, value) && value) {
        rules.maxFlows = value;
        return true;
    }
    if (!strcmp(word, "report") && (!strcmp(first, "flow") || !strcmp(first, "packet"))) {
        rules.everyPacket = first[0] == 'p';
        return true;
    }
    return false;
}

}  // namespace

void defaultRules(Rules &rules, uint32_t idBase) {
    for (uint32_t port = 0; port < kPorts; port++)
        rules.port[port] = port < kFirstPort ? kNotReported : port - kFirstPort + idBase;
    for (uint32_t &id : rules.proto) id = kNotReported;
    rules.other = kNotReported;
    rules.flowState = 0;
    rules.everyPacket = false;
    rules.maxFlows = 1U << 20;
}

void readRules(Rules &rules, const char *path) {
    const std::unique_ptr<FILE, CloseFile> file(fopen(path, "re"));
    if (!file) return;
    char line[256];
    for (int number = 1; fgets(line, sizeof(line), file.get()); number++) {
        line[strcspn(line, "#\r\n")] = '\0';
        char *rest = nullptr;
        const char *word = strtok_r(line, " \t", &rest);
        if (!word) continue;
        const char *first = strtok_r(nullptr, " \t", &rest);
        const char *second = strtok_r(nullptr, " \t", &rest);
        if (strtok_r(nullptr, " \t", &rest) || !applyRule(rules, word, first, second))
            (void)fprintf(stderr, "%s:%d: not a rule: %s\n", path, number, word);
    }
}

uint32_t applicationOf(const Rules &rules, const Tuple &tuple) {
    if (tuple.dstPort && rules.port[tuple.dstPort] != kNotReported) return rules.port[tuple.dstPort];
    if (rules.proto[tuple.proto] != kNotReported) return rules.proto[tuple.proto];
    return rules.other;
}

}  // namespace engine
