// Packets from libpcap: capture files and live interfaces.
#include <pcap/pcap.h>

#include <cstdio>

#include "packet.h"
#include "packet_source.h"

namespace dpimod {
namespace {

struct PcapCloser {
    void operator()(pcap_t *handle) const { pcap_close(handle); }
};
using Pcap = std::unique_ptr<pcap_t, PcapCloser>;

// Strips and counts; false for what is not passed on.
bool accept(int linkType, const pcap_pkthdr &header, const uint8_t *bytes, ByteView &ip,
            InputCounters &counters) {
    ++counters.frames;
    switch (stripLink(linkType, {bytes, header.caplen}, ip)) {
        case Strip::ok:
            break;
        case Strip::notIp:
            ++counters.notIp;
            return false;
        case Strip::tooShort:
            ++counters.tooShort;
            return false;
        case Strip::wrongVersion:
            ++counters.wrongVersion;
            return false;
    }
    if (header.caplen < header.len) ++counters.cut;
    if (ip.size() > kMaxPacket) {
        ip = ip.first(kMaxPacket);
        ++counters.cut;
    }
    return true;
}

Pcap openFile(const std::string &path, std::string &error) {
    char text[PCAP_ERRBUF_SIZE] = "";
    Pcap handle(pcap_open_offline(path.c_str(), text));
    if (!handle) {
        error = text;
        if (error.find(path) == std::string::npos) error = path + ": " + error;
    } else if (!linkTypeKnown(pcap_datalink(handle.get()))) {
        const char *name = pcap_datalink_val_to_name(pcap_datalink(handle.get()));
        error = path + ": no IP in link type " + (name ? name : std::to_string(pcap_datalink(handle.get())));
        handle.reset();
    }
    return handle;
}

class FileSource : public PacketSource {
  public:
    FileSource(std::vector<std::string> paths, uint64_t loops) : paths_(std::move(paths)), loops_(loops) {}

    Next next(ByteView &ip, InputCounters &counters) override {
        for (;;) {
            if (!handle_ && !openNext()) return Next::end;
            pcap_pkthdr *header = nullptr;
            const uint8_t *bytes = nullptr;
            const int result = pcap_next_ex(handle_.get(), &header, &bytes);
            if (result == 1) {
                any_ = true;
                if (accept(pcap_datalink(handle_.get()), *header, bytes, ip, counters)) return Next::packet;
                continue;
            }
            // A file that ends in the middle of a record has given what it has.
            if (result == PCAP_ERROR)
                std::fprintf(stderr, "dpimod: %s: %s\n", paths_[file_ - 1].c_str(),
                             pcap_geterr(handle_.get()));
            handle_.reset();
        }
    }

  private:
    bool openNext() {
        while (true) {
            if (file_ == paths_.size()) {
                if (++round_ == loops_ || !any_) return false;  // empty files would loop without end
                file_ = 0;
            }
            std::string error;
            handle_ = openFile(paths_[file_++], error);
            if (handle_) return true;
            std::fprintf(stderr, "dpimod: %s\n", error.c_str());
            if (file_ == paths_.size() && !any_) return false;
        }
    }

    std::vector<std::string> paths_;
    uint64_t loops_, round_ = 0;
    size_t file_ = 0;
    bool any_ = false;
    Pcap handle_;
};

class LiveSource : public PacketSource {
  public:
    explicit LiveSource(Pcap handle) : handle_(std::move(handle)) {}

    Next next(ByteView &ip, InputCounters &counters) override {
        for (;;) {
            pcap_pkthdr *header = nullptr;
            const uint8_t *bytes = nullptr;
            const int result = pcap_next_ex(handle_.get(), &header, &bytes);
            if (result == 0) return Next::later;
            if (result < 0) {
                std::fprintf(stderr, "dpimod: %s\n", pcap_geterr(handle_.get()));
                return Next::end;
            }
            if (accept(pcap_datalink(handle_.get()), *header, bytes, ip, counters)) return Next::packet;
        }
    }
    [[nodiscard]] int fd() const override { return pcap_get_selectable_fd(handle_.get()); }
    void finish(InputCounters &counters) override {
        pcap_stat stat{};
        if (pcap_stats(handle_.get(), &stat) == 0) counters.lostBefore = stat.ps_drop;
    }

  private:
    Pcap handle_;
};

}  // namespace

std::unique_ptr<PacketSource> openFiles(const std::vector<std::string> &paths, uint64_t loops,
                                        std::string &error) {
    for (const std::string &path : paths)
        if (!openFile(path, error)) return nullptr;
    return std::make_unique<FileSource>(paths, loops);
}

std::unique_ptr<PacketSource> openInterface(const std::string &name, std::string &error) {
    char text[PCAP_ERRBUF_SIZE] = "";
    Pcap handle(pcap_create(name.c_str(), text));
    if (!handle) {
        error = name + ": " + text;
        return nullptr;
    }
    pcap_set_snaplen(handle.get(), 262144);
    pcap_set_promisc(handle.get(), 1);
    pcap_set_immediate_mode(handle.get(), 1);
    pcap_set_buffer_size(handle.get(), 16 << 20);
    const int result = pcap_activate(handle.get());
    if (result < 0 || pcap_setnonblock(handle.get(), 1, text) != 0) {
        error =
            name + ": " + (result < 0 ? pcap_statustostr(result) : text) + " " + pcap_geterr(handle.get());
        return nullptr;
    }
    if (!linkTypeKnown(pcap_datalink(handle.get()))) {
        error = name + ": a link type that carries no IP";
        return nullptr;
    }
    return std::make_unique<LiveSource>(std::move(handle));
}

}  // namespace dpimod
