#include "common/clickhouse.h"

#include <algorithm>

#include "common/printable.h"

namespace fleet {
namespace {

constexpr long kConnectSeconds = 10;
constexpr long kSeconds = 1800;  // for a whole statement
constexpr size_t kErrorLength = 500;

std::string urlEncoded(std::string_view text) {
    std::string out;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (std::string_view("-_.").find(character) != std::string_view::npos ||
            (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z'))
            out += character;
        else
            out.append("%").append(1, "0123456789ABCDEF"[byte >> 4]).append(1, "0123456789ABCDEF"[byte & 15]);
    }
    return out;
}

int askStop(void *stop, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return reinterpret_cast<bool (*)()>(stop)() ? 1 : 0;
}

}  // namespace

ClickHouse::ClickHouse(const Server &server, bool (*stop)())
    : url_(server.url + (server.url.ends_with('/') ? "?" : "/?") + "database=" + urlEncoded(server.database)),
      curl_(curl_easy_init()),
      // A body of any size goes out at once, instead of after an answer that need not come.
      headers_(curl_slist_append(nullptr, "Expect:")) {
    CURL *const curl = curl_.get();
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers_.get());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &ClickHouse::take);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, kSeconds);
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    if (stop) {
        curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
        curl_easy_setopt(curl, CURLOPT_XFERINFODATA, reinterpret_cast<void *>(stop));
        curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &askStop);
    }
    if (!server.user.empty()) {
        curl_easy_setopt(curl, CURLOPT_USERNAME, server.user.c_str());
        curl_easy_setopt(curl, CURLOPT_PASSWORD, server.password.c_str());
        curl_easy_setopt(curl, CURLOPT_HTTPAUTH, CURLAUTH_BASIC);
    }
}

size_t ClickHouse::take(char *bytes, size_t size, size_t count, void *self) {
    static_cast<ClickHouse *>(self)->answer_.append(bytes, size * count);
    return size * count;
}

bool ClickHouse::post(const std::string &parameters, std::string_view body) {
    answer_.clear();
    CURL *const curl = curl_.get();
    curl_easy_setopt(curl, CURLOPT_URL, (url_ + parameters).c_str());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    const CURLcode result = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    if (result != CURLE_OK)
        error_ = curl_easy_strerror(result);
    else if (status != 200)
        error_ = "HTTP " + std::to_string(status) + ": " + printable(answer_.substr(0, kErrorLength));
    else
        return true;
    return false;
}

bool ClickHouse::insert(const std::string &statement, std::string_view rows) {
    // The answer comes when every shard has its rows, not when this node has promised to forward them.
    if (!post("&insert_distributed_sync=1&query=" + urlEncoded(statement), rows)) return false;
    // An answer to an insertion is empty: whoever says more, such as a web server at that address, has not
    // taken it.
    if (answer_.empty()) return true;
    error_ = "an answer that is not ClickHouse's: " + printable(answer_.substr(0, kErrorLength));
    return false;
}

bool ClickHouse::query(const std::string &text) {
    // The answer comes when there is the whole of it: a server that has sent a part puts what goes wrong into
    // the rest, and has said that all is well before.
    return post("&wait_end_of_query=1", text);
}

std::string quoted(std::string_view text) {
    std::string out = "'";
    for (const char character : text) {
        if (character == '\'' || character == '\\') out += '\\';
        out += character;
    }
    return out + '\'';
}

}  // namespace fleet
