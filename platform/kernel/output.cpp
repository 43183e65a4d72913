#include "output.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstring>

namespace dpimod {
namespace {

std::string endpointText(const Endpoint &endpoint, uint8_t version) {
    const std::string address = addressText(endpoint, version);
    return (version == 6 ? "[" + address + "]" : address) + ":" + std::to_string(endpoint.port);
}

std::string protoText(uint8_t proto) {
    switch (proto) {
        case 1:
            return "ICMP";
        case 6:
            return "TCP";
        case 17:
            return "UDP";
        case 58:
            return "ICMPv6";
        case 132:
            return "SCTP";
        default:
            return std::to_string(proto);
    }
}

void addTuple(Json &json, const FiveTuple &flow) {
    json.number("ip_version", flow.version)
        .text("first", addressText(flow.first, flow.version))
        .text("second", addressText(flow.second, flow.version))
        .number("proto", flow.proto)
        .number("first_port", flow.first.port)
        .number("second_port", flow.second.port);
}

template <class T>
void addNumber(Json &json, const char *name, const std::optional<T> &value) {
    if (value) json.number(name, *value);
}

}  // namespace

Output::~Output() {
    if (file_ && file_ != stdout) std::fclose(file_);
}

bool Output::open(const std::string &path) {
    if (path.empty()) return true;
    file_ = path == "-" ? stdout : std::fopen(path.c_str(), "we");
    if (!file_) std::fprintf(stderr, "dpimod: %s: %s\n", path.c_str(), std::strerror(errno));
    return file_ != nullptr;
}

void Output::line(const Json &json) {
    if (!file_) return;
    const std::string text = json.done() + "\n";
    if (std::fwrite(text.data(), 1, text.size(), file_) != text.size() || std::fflush(file_) != 0)
        std::fprintf(stderr, "dpimod: JSON output: %s\n", std::strerror(errno));
}

Json resultJson(const Result &result, ByteView raw) {
    Json json;
    json.text("event", "result");
    addTuple(json, result.flow);
    json.number("match", result.match);
    addNumber(json, "app_id", result.appId);
    if (result.appName) json.text("app_name", *result.appName);
    addNumber(json, "state_clear", result.stateClear);
    if (result.groupName) json.text("group", *result.groupName);
    json.texts("problems", result.problems).text("raw", hexText(raw));
    return json;
}

Json configJson(const Config &config, uint32_t from, ByteView raw) {
    Json json;
    json.text("event", "config").number("from", from);
    addNumber(json, "packet_portid", config.packetPortid);
    addNumber(json, "mirror", config.mirror);
    addNumber(json, "param3", config.param3);
    addNumber(json, "param5", config.param5);
    addNumber(json, "param6", config.param6);
    addNumber(json, "param4", config.param4);
    json.texts("problems", config.problems).text("raw", hexText(raw));
    return json;
}

Json reportJson(const FlowReport &report) {
    Json json;
    json.text("event", "report");
    addTuple(json, report.flow);
    json.number("aged", report.aged).number("bytes", report.bytes).number("packets", report.packets);
    if (!report.accessProfile.empty()) json.text("access_profile", report.accessProfile);
    if (!report.qosRule.empty()) json.text("qos_rule", report.qosRule);
    return json;
}

Json flowJson(const Flow &flow) {
    Json json;
    addTuple(json, flow.tuple);
    json.number("match", flow.match)
        .number("results", flow.results)
        .number("app_id", flow.appId)
        .text("app_name", flow.appName)
        .text("group", flow.groupName)
        .number("packets", flow.packets)
        .number("bytes", flow.bytes);
    return json;
}

void printVerdicts(FILE *out, const std::vector<Flow> &flows) {
    constexpr size_t kColumns = 9;
    using Row = std::array<std::string, kColumns>;
    std::vector<Row> rows{
        {"FIRST", "SECOND", "PROTO", "MATCH", "APP ID", "APPLICATION", "GROUP", "PACKETS", "BYTES"}};
    for (const Flow &flow : flows) {
        const bool named = flow.match != 0;
        rows.push_back({endpointText(flow.tuple.first, flow.tuple.version),
                        endpointText(flow.tuple.second, flow.tuple.version), protoText(flow.tuple.proto),
                        named ? "yes" : "no", named ? std::to_string(flow.appId) : "-",
                        flow.appName.empty() ? "-" : flow.appName,
                        flow.groupName.empty() ? "-" : flow.groupName, std::to_string(flow.packets),
                        std::to_string(flow.bytes)});
    }
    std::array<size_t, kColumns> widths{};
    for (const Row &row : rows)
        for (size_t i = 0; i < kColumns; ++i) widths[i] = std::max(widths[i], row[i].size());
    for (const Row &row : rows) {
        std::string text;
        for (size_t i = 0; i < kColumns; ++i) {
            const std::string pad(widths[i] - row[i].size(), ' ');
            const bool right = i == 4 || i >= 7;
            text += right ? pad + row[i] : row[i] + pad;
            if (i + 1 < kColumns) text += "  ";
        }
        text.erase(text.find_last_not_of(' ') + 1);
        std::fprintf(out, "%s\n", text.c_str());
    }
}

}  // namespace dpimod
