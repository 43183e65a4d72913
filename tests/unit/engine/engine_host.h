// Loads an engine library as the daemon does, and collects what it reports.  Engines call back through this
// executable's exported capture_flow_func, so there is one collection for the whole program.
#pragma once

#include <string>
#include <vector>

#include "engine_api.h"

// What a test compares of a report.
struct Report {
    std::string src, dst;
    uint32_t srcPort, dstPort, proto, appId, flowState;
    std::string appName;

    bool operator==(const Report &) const = default;
};

// The reports since the last call.
std::vector<Report> takeReports();

class EngineHost {
  public:
    // The name of a library of platform/engine ("ndpi", "no_exit").  Fails the test if it cannot be opened.
    explicit EngineHost(const char *name);
    ~EngineHost();  // exits and unloads
    EngineHost(const EngineHost &) = delete;
    EngineHost &operator=(const EngineHost &) = delete;

    [[nodiscard]] bool has(const char *symbol) const;
    void start();
    void stop();
    // Hands over a copy of exactly these bytes at the end of a memory page that nothing follows, so that
    // reading past them ends the program.  The time is in ms.
    void packet(const std::vector<uint8_t> &bytes, uint64_t time = 1'000'000);
    // The descriptor as it is.
    void raw(const uint8_t *data, uint64_t len, uint64_t time = 1'000'000);

    // The file of an engine library.
    static std::string path(const std::string &name);

  private:
    std::string name_;
    void *library_ = nullptr;
    void (*packetEntry_)(const capture_pkt *, const timeval *) = nullptr;
    bool started_ = false;
    uint8_t *page_ = nullptr, *end_ = nullptr;
};

// A packet of a capture file, from its IP header on.
struct CapturedPacket {
    uint64_t time;  // ms
    std::vector<uint8_t> bytes;
};

std::vector<CapturedPacket> readSample();
