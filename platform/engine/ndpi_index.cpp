// Prints the index of the libndpi engine: one line for each application that it can report.
#include <ndpi_api.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace {

// Fields end at a comma.  An empty field would vanish, and the next one take its place.
std::string field(const char *text) {
    std::string result = text && *text ? text : "-";
    std::replace(result.begin(), result.end(), ',', ' ');
    return result;
}

}  // namespace

int main() {
    ndpi_detection_module_struct *detector = ndpi_init_detection_module(ndpi_no_prefs);
    if (!detector) {
        (void)fprintf(stderr, "ndpi-index: libndpi cannot be started\n");
        return 1;
    }
    ndpi_finalize_initialization(detector);
    const ndpi_proto_defaults_t *defaults = ndpi_get_proto_defaults(detector);
    const std::string source = field(("libndpi " + std::string(ndpi_revision())).c_str());
    int printed = printf("id,name,category,risk,kind,area,source\n");
    for (u_int id = 0; printed >= 0 && id < ndpi_get_num_supported_protocols(detector); id++) {
        const ndpi_proto_defaults_t &app = defaults[id];
        printed = printf("%u,%s,%s,%s,-,-,%s\n", id, field(app.protoName).c_str(),
                         field(ndpi_category_get_name(detector, app.protoCategory)).c_str(),
                         field(ndpi_get_proto_breed_name(detector, app.protoBreed)).c_str(), source.c_str());
    }
    ndpi_exit_detection_module(detector);
    return printed < 0 || fflush(stdout) != 0;
}
