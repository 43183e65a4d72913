// korvid-collect: record files from a spool into ClickHouse.
#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "collect/collector.h"

int main(int argc, char **argv) {
    fleet::Options options;
    int status = 0;
    if (!fleet::readOptions(argc, argv, options, status)) return status;
    const fleet::Descriptor top(open(options.spool.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!top) {
        (void)fprintf(stderr, "korvid-collect: %s: %s\n", options.spool.c_str(), strerror(errno));
        return 2;
    }
    curl_global_init(CURL_GLOBAL_DEFAULT);
    {
        fleet::Collector collector(options, top.get());
        status = collector.run();
    }
    curl_global_cleanup();
    return status;
}
