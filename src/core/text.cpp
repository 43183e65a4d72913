#include "core/text.h"

#include <cstdio>

namespace am {

TimeText utcText(time_t time) {
    TimeText out{};
    tm broken{};
    gmtime_r(&time, &broken);
    snprintf(out.text, sizeof out.text, "%i-%02i-%02i %02i:%02i:%02i", broken.tm_year + 1900,
             broken.tm_mon + 1, broken.tm_mday, broken.tm_hour, broken.tm_min, broken.tm_sec);
    return out;
}

AddressText addressText(uint32_t ipv4) {
    AddressText out{};
    inet_ntop(AF_INET, &ipv4, out.text, sizeof out.text);
    return out;
}

AddressText addressText(const in6_addr &ipv6) {
    AddressText out{};
    inet_ntop(AF_INET6, &ipv6, out.text, sizeof out.text);
    return out;
}

}  // namespace am

const char *getProtoStr(unsigned proto) {
    switch (proto) {
        case IPPROTO_TCP:
            return "TCP";
        case IPPROTO_UDP:
            return "UDP";
        default:
            return " - ";
    }
}
