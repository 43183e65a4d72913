// The text becomes a tree first: a syntax error at its end must leave the buffer untouched, and a repeated
// name replaces the earlier value in its place.
#include <limits.h>

#include "libubox/blobmsg_json.h"

namespace {

constexpr size_t kMaxDepth = 32;
constexpr uint32_t kNone = UINT32_MAX;

struct Node {
    int type;              // BLOBMSG_TYPE_*
    const char *name;      // null in an array
    uint32_t nameHash;     // spares most of the comparisons in a large object
    uint32_t first, last;  // members of a container
    uint32_t next;         // in the same container
    union {
        uint64_t number;
        double real;
        const char *text;
    };
};

struct Parser {
    const char *pos;
    char *strings;  // decoded ones, which never take more room than their source
    Node *nodes = nullptr;
    uint32_t count = 0;
    uint32_t room = 0;
};

void skipBlanks(Parser &parser) {
    while (*parser.pos == ' ' || *parser.pos == '\t' || *parser.pos == '\n' || *parser.pos == '\r')
        parser.pos++;
}

bool take(Parser &parser, const char *token) {
    const size_t length = strlen(token);
    if (strncmp(parser.pos, token, length) != 0) return false;
    parser.pos += length;
    return true;
}

uint32_t newNode(Parser &parser) {
    if (parser.count == parser.room) {
        const uint32_t room = parser.room * 2 + 16;
        auto *nodes = static_cast<Node *>(realloc(parser.nodes, room * sizeof(Node)));
        if (!nodes) return kNone;
        parser.nodes = nodes;
        parser.room = room;
    }
    return parser.count++;
}

// ---- strings

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Four hexadecimal digits at text, or -1.
int32_t codeUnit(const char *text) {
    int32_t value = 0;
    for (int i = 0; i < 4; i++) {
        const int digit = hexDigit(text[i]);
        if (digit < 0) return -1;  // also stops at the end of the text
        value = value * 16 + digit;
    }
    return value;
}

void putUtf8(Parser &parser, uint32_t code) {
    char *&out = parser.strings;
    if (code < 0x80) {
        *out++ = static_cast<char>(code);
    } else if (code < 0x800) {
        *out++ = static_cast<char>(0xc0 | code >> 6);
        *out++ = static_cast<char>(0x80 | (code & 0x3f));
    } else if (code < 0x10000) {
        *out++ = static_cast<char>(0xe0 | code >> 12);
        *out++ = static_cast<char>(0x80 | (code >> 6 & 0x3f));
        *out++ = static_cast<char>(0x80 | (code & 0x3f));
    } else {
        *out++ = static_cast<char>(0xf0 | code >> 18);
        *out++ = static_cast<char>(0x80 | (code >> 12 & 0x3f));
        *out++ = static_cast<char>(0x80 | (code >> 6 & 0x3f));
        *out++ = static_cast<char>(0x80 | (code & 0x3f));
    }
}

// Behind "\u".  A surrogate without its other half becomes U+FFFD.
bool takeUnicodeEscape(Parser &parser) {
    const int32_t unit = codeUnit(parser.pos);
    if (unit < 0) return false;
    parser.pos += 4;
    if (unit < 0xd800 || unit > 0xdfff) {
        putUtf8(parser, static_cast<uint32_t>(unit));
        return true;
    }
    if (unit < 0xdc00 && parser.pos[0] == '\\' && parser.pos[1] == 'u') {
        const int32_t low = codeUnit(parser.pos + 2);
        if (low >= 0xdc00 && low <= 0xdfff) {
            parser.pos += 6;
            putUtf8(parser, 0x10000 + (static_cast<uint32_t>(unit - 0xd800) << 10) +
                                static_cast<uint32_t>(low - 0xdc00));
            return true;
        }
    }
    putUtf8(parser, 0xfffd);
    return true;
}

// The decoded text, null on a syntax error.
const char *takeString(Parser &parser) {
    if (*parser.pos != '"') return nullptr;
    parser.pos++;
    const char *text = parser.strings;
    while (*parser.pos != '"') {
        const char c = *parser.pos;
        if (!c) return nullptr;
        parser.pos++;
        if (c != '\\') {
            *parser.strings++ = c;
            continue;
        }
        static const char kNames[] = "\"\\/bfnrtu";
        static const char kValues[] = "\"\\/\b\f\n\r\t";
        const char name = *parser.pos;
        const char *found = name ? strchr(kNames, name) : nullptr;
        if (!found) return nullptr;
        parser.pos++;
        if (name != 'u')
            *parser.strings++ = kValues[found - kNames];
        else if (!takeUnicodeEscape(parser))
            return nullptr;
    }
    parser.pos++;
    *parser.strings++ = '\0';
    return text;
}

// ---- numbers

size_t countDigits(const char *text) {
    size_t count = 0;
    while (text[count] >= '0' && text[count] <= '9') count++;
    return count;
}

bool takeNumber(Parser &parser, Node &node) {
    const char *start = parser.pos;
    const char *end = start + (*start == '-');
    const size_t digits = countDigits(end);
    if (digits == 0 || (digits > 1 && *end == '0')) return false;
    end += digits;
    bool real = false;
    if (*end == '.') {
        const size_t decimals = countDigits(end + 1);
        if (!decimals) return false;
        end += 1 + decimals;
        real = true;
    }
    if (*end == 'e' || *end == 'E') {
        end += (end[1] == '+' || end[1] == '-') ? 2 : 1;
        const size_t exponent = countDigits(end);
        if (!exponent) return false;
        end += exponent;
        real = true;
    }
    parser.pos = end;
    if (real) {
        node.type = BLOBMSG_TYPE_DOUBLE;
        node.real = strtod(start, nullptr);
        return true;
    }
    const long long value = strtoll(start, nullptr, 10);  // clamps to what 64 bits hold
    node.type = value >= INT32_MIN && value <= INT32_MAX ? BLOBMSG_TYPE_INT32 : BLOBMSG_TYPE_INT64;
    node.number = static_cast<uint64_t>(value);
    return true;
}

// ---- values

// A container is only opened: its members come one by one.
bool takeValue(Parser &parser, Node &node) {
    node.first = node.last = kNone;
    switch (*parser.pos) {
        case '{':
        case '[':
            node.type = *parser.pos++ == '{' ? BLOBMSG_TYPE_TABLE : BLOBMSG_TYPE_ARRAY;
            return true;
        case '"':
            node.type = BLOBMSG_TYPE_STRING;
            node.text = takeString(parser);
            return node.text != nullptr;
        case 't':
        case 'f':
            node.type = BLOBMSG_TYPE_BOOL;
            node.number = *parser.pos == 't';
            return take(parser, node.number ? "true" : "false");
        case 'n':
            node.type = BLOBMSG_TYPE_UNSPEC;
            return take(parser, "null");
        default:
            return takeNumber(parser, node);
    }
}

uint32_t hashOf(const char *name) {
    uint32_t hash = 2166136261U;
    for (; *name; name++) hash = (hash ^ static_cast<unsigned char>(*name)) * 16777619U;
    return hash;
}

// A place for the next member of the container: a new one at its end, or that of the same name.
uint32_t placeFor(Parser &parser, uint32_t container, const char *name) {
    const uint32_t hash = name ? hashOf(name) : 0;
    if (name)
        for (uint32_t i = parser.nodes[container].first; i != kNone; i = parser.nodes[i].next)
            if (parser.nodes[i].nameHash == hash && strcmp(parser.nodes[i].name, name) == 0) return i;
    const uint32_t place = newNode(parser);
    if (place == kNone) return kNone;
    parser.nodes[place].name = name;
    parser.nodes[place].nameHash = hash;
    parser.nodes[place].next = kNone;
    Node &parent = parser.nodes[container];
    if (parent.first == kNone)
        parent.first = place;
    else
        parser.nodes[parent.last].next = place;
    parent.last = place;
    return place;
}

bool isContainer(const Node &node) {
    return node.type == BLOBMSG_TYPE_TABLE || node.type == BLOBMSG_TYPE_ARRAY;
}

// Reads "name": and the value, or only the value in an array.  The member's place, kNone on a syntax error.
uint32_t takeMember(Parser &parser, uint32_t container) {
    const char *name = nullptr;
    if (parser.nodes[container].type == BLOBMSG_TYPE_TABLE) {
        name = takeString(parser);
        if (!name) return kNone;
        skipBlanks(parser);
        if (!take(parser, ":")) return kNone;
        skipBlanks(parser);
    }
    const uint32_t place = placeFor(parser, container, name);
    return place != kNone && takeValue(parser, parser.nodes[place]) ? place : kNone;
}

// The whole text; node 0 is its object.
bool parseText(Parser &parser) {
    skipBlanks(parser);
    if (*parser.pos != '{' || newNode(parser) == kNone) return false;
    takeValue(parser, parser.nodes[0]);
    uint32_t open[kMaxDepth] = {0};
    size_t depth = 1;
    bool wantMember = false;  // behind a comma
    while (depth) {
        const uint32_t container = open[depth - 1];
        const bool empty = parser.nodes[container].first == kNone;
        skipBlanks(parser);
        if (!wantMember && take(parser, parser.nodes[container].type == BLOBMSG_TYPE_TABLE ? "}" : "]")) {
            depth--;
            continue;
        }
        if (!wantMember && !empty) {
            if (!take(parser, ",")) return false;
            wantMember = true;
            continue;
        }
        const uint32_t member = takeMember(parser, container);
        if (member == kNone) return false;
        wantMember = false;
        if (!isContainer(parser.nodes[member])) continue;
        if (depth == kMaxDepth) return false;
        open[depth++] = member;
    }
    skipBlanks(parser);
    return *parser.pos == '\0';
}

// ---- into the buffer

bool addScalar(blob_buf *buf, const Node &node) {
    switch (node.type) {
        case BLOBMSG_TYPE_STRING:
            return blobmsg_add_string(buf, node.name, node.text) == 0;
        case BLOBMSG_TYPE_BOOL:
            return blobmsg_add_u8(buf, node.name, static_cast<uint8_t>(node.number)) == 0;
        case BLOBMSG_TYPE_INT32:
            return blobmsg_add_u32(buf, node.name, static_cast<uint32_t>(node.number)) == 0;
        case BLOBMSG_TYPE_INT64:
            return blobmsg_add_u64(buf, node.name, node.number) == 0;
        case BLOBMSG_TYPE_DOUBLE:
            return blobmsg_add_double(buf, node.name, node.real) == 0;
        default:
            return blobmsg_add_field(buf, BLOBMSG_TYPE_UNSPEC, node.name, nullptr, 0) == 0;
    }
}

bool addMembers(blob_buf *buf, const Node *nodes) {
    struct {
        void *cookie;
        uint32_t next;
    } open[kMaxDepth];
    open[0] = {nullptr, nodes[0].first};
    size_t depth = 1;
    bool added = true;
    while (depth) {
        const uint32_t place = open[depth - 1].next;
        if (place == kNone || !added) {  // containers are closed also after a failure
            depth--;
            if (depth) blob_nest_end(buf, open[depth].cookie);
            continue;
        }
        const Node &node = nodes[place];
        open[depth - 1].next = node.next;
        if (!isContainer(node)) {
            added = addScalar(buf, node);
            continue;
        }
        void *cookie = blobmsg_open_nested(buf, node.name, node.type == BLOBMSG_TYPE_ARRAY);
        added = cookie != nullptr;
        if (added) open[depth++] = {cookie, node.first};
    }
    return added;
}

}  // namespace

bool blobmsg_add_json_from_string(blob_buf *buf, const char *str) {
    if (!str) return false;
    auto *strings = static_cast<char *>(malloc(strlen(str) + 1));
    if (!strings) return false;
    Parser parser{str, strings};
    const bool added = parseText(parser) && addMembers(buf, parser.nodes);
    free(parser.nodes);
    free(strings);
    return added;
}

bool blobmsg_add_json_from_file(blob_buf *buf, const char *file) {
    FILE *in = fopen(file, "re");
    if (!in) return false;
    char *text = nullptr;
    size_t room = 0;
    // A NUL cannot be part of the text, so reading up to one reads the file, or shows that it is no JSON.
    const ssize_t length = getdelim(&text, &room, '\0', in);
    fclose(in);
    const bool added =
        length > 0 && strlen(text) == static_cast<size_t>(length) && blobmsg_add_json_from_string(buf, text);
    free(text);
    return added;
}
