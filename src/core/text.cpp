#include "core/text.h"

#include "core/append.h"

namespace am {

AddressText addressText(uint32_t ipv4) {
    AddressText out{};
    *appendAddress(out.text, ipv4) = '\0';
    return out;
}

AddressText addressText(const in6_addr &ipv6) {
    AddressText out{};
    *appendAddress(out.text, ipv6) = '\0';
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
