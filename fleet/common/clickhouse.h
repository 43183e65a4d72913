// A ClickHouse node's HTTP interface (https://clickhouse.com/docs/en/interfaces/http), through libcurl.  One
// thread.
#pragma once
#include <curl/curl.h>

#include <memory>
#include <string>
#include <string_view>

namespace fleet {

struct Server {
    std::string url = "http://localhost:8123/";
    std::string database = "korvid";
    std::string user, password;  // empty: the server's default user
};

class ClickHouse {
  public:
    // With `stop`, a transfer ends soon after that has become true.
    explicit ClickHouse(const Server &server, bool (*stop)() = nullptr);

    // Sends rows in the format that the statement names.  False: error() says why; part of the rows may be
    // in.
    [[nodiscard]] bool insert(const std::string &statement, std::string_view rows);

    // Runs a query; answer() is what it gave.
    [[nodiscard]] bool query(const std::string &text);
    [[nodiscard]] const std::string &answer() const { return answer_; }

    [[nodiscard]] const std::string &error() const { return error_; }  // one line

  private:
    struct Free {
        void operator()(CURL *handle) const { curl_easy_cleanup(handle); }
        void operator()(curl_slist *list) const { curl_slist_free_all(list); }
    };
    static size_t take(char *bytes, size_t size, size_t count, void *self);
    [[nodiscard]] bool post(const std::string &parameters, std::string_view body);

    std::string url_;
    std::unique_ptr<CURL, Free> curl_;
    std::unique_ptr<curl_slist, Free> headers_;
    std::string answer_, error_;
};

// A text between single quotes, as in a statement.
std::string quoted(std::string_view text);

}  // namespace fleet
