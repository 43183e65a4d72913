#include "engine_host.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pcap/pcap.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

namespace {

std::mutex reportLock;  // engines may report from threads of their own
std::vector<Report> reports;

constexpr size_t kPages = 17;  // of 4 KiB: more than the longest packet

std::string addressText(int family, const void *address) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(family, address, text, sizeof(text));
    return text;
}

int collect(const capture_flow_info *info) {
    const bool v4 = info->ipproto == FLOW_IP_TYPE_IPV4;
    EXPECT_TRUE(v4 || info->ipproto == FLOW_IP_TYPE_IPV6);
    const int family = v4 ? AF_INET : AF_INET6;
    Report report{addressText(family, v4 ? static_cast<const void *>(&info->src_ip) : info->src_ip6),
                  addressText(family, v4 ? static_cast<const void *>(&info->dst_ip) : info->dst_ip6),
                  info->src_port,
                  info->dst_port,
                  info->proto,
                  info->app_id,
                  info->flow_state,
                  info->app_name};
    const std::lock_guard guard(reportLock);
    reports.push_back(std::move(report));
    return 0;
}

}  // namespace

// Looked up by the engines, as in the daemon.
extern "C" {
__attribute__((visibility("default"))) int (*capture_flow_func)(const capture_flow_info *info) = collect;
}

std::vector<Report> takeReports() {
    const std::lock_guard guard(reportLock);
    return std::move(reports);
}

std::string EngineHost::path(const std::string &name) {
    return std::string(ENGINE_FOLDER "/") + name + "/libcapture.so";
}

EngineHost::EngineHost(const char *name) : name_(name) {
    takeReports();
    library_ = dlopen(path(name).c_str(), RTLD_NOW | RTLD_GLOBAL);
    EXPECT_NE(library_, nullptr) << dlerror();
    packetEntry_ = reinterpret_cast<decltype(packetEntry_)>(dlsym(library_, "pcap_packet"));
    const auto size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    page_ = static_cast<uint8_t *>(
        mmap(nullptr, (kPages + 1) * size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    end_ = page_ + kPages * size;
    EXPECT_EQ(mprotect(end_, size, PROT_NONE), 0);
}

EngineHost::~EngineHost() {
    if (started_) stop();
    dlclose(library_);
    EXPECT_EQ(dlopen(path(name_).c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr) << "still loaded";
    munmap(page_, static_cast<size_t>(end_ - page_) + static_cast<size_t>(sysconf(_SC_PAGESIZE)));
}

bool EngineHost::has(const char *symbol) const {
    return dlsym(library_, symbol) != nullptr;
}

void EngineHost::start() {
    started_ = true;
    if (auto *entry = reinterpret_cast<void (*)()>(dlsym(library_, "test_capture"))) entry();
}

void EngineHost::stop() {
    started_ = false;
    if (auto *entry = reinterpret_cast<void (*)()>(dlsym(library_, "test_capture_exit"))) entry();
}

void EngineHost::raw(const uint8_t *data, uint64_t len, uint64_t time) {
    ASSERT_NE(packetEntry_, nullptr);
    const capture_pkt packet{data, len};
    const timeval at{static_cast<time_t>(time / 1000), static_cast<suseconds_t>(time % 1000 * 1000)};
    packetEntry_(&packet, &at);
}

void EngineHost::packet(const std::vector<uint8_t> &bytes, uint64_t time) {
    uint8_t *data = end_ - bytes.size();
    std::copy(bytes.begin(), bytes.end(), data);
    raw(data, bytes.size() + 4, time);
}

std::vector<CapturedPacket> readSample() {
    constexpr size_t kEthernet = 14;
    char error[PCAP_ERRBUF_SIZE] = "";
    std::vector<CapturedPacket> packets;
    pcap_t *file = pcap_open_offline(SAMPLE_FILE, error);
    EXPECT_NE(file, nullptr) << error;
    if (!file) return packets;
    EXPECT_EQ(pcap_datalink(file), DLT_EN10MB);
    pcap_pkthdr *header = nullptr;
    const u_char *data = nullptr;
    while (pcap_next_ex(file, &header, &data) == 1) {
        if (header->caplen <= kEthernet) continue;
        packets.push_back({static_cast<uint64_t>(header->ts.tv_sec) * 1000 +
                               static_cast<uint64_t>(header->ts.tv_usec) / 1000,
                           {data + kEthernet, data + header->caplen}});
    }
    pcap_close(file);
    return packets;
}
