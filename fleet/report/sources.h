// Where the page's numbers come from.  Both give the same for the same lines.
#pragma once
#include <cstdint>
#include <string>

#include "common/clickhouse.h"
#include "report/facts.h"

namespace fleet {

struct Wanted {
    int64_t seconds = 86400;  // length of the period
    int64_t to = 0;           // its end; 0: the newest record
    std::string site;         // boxes of this folder only; empty: all
    std::string box;          // name of the folder's own files; empty: the host's
};

// False: `error` says why.

// The record files of a folder, of the box it belongs to, and of the folders below, a box each.
[[nodiscard]] bool factsFromFolder(const std::string &folder, const Wanted &wanted, Facts &facts,
                                   std::string &error);

[[nodiscard]] bool factsFromClickHouse(const Server &server, const Wanted &wanted, Facts &facts,
                                       std::string &error);

}  // namespace fleet
