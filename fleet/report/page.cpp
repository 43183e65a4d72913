#include "report/page.h"

#include <nettle/base64.h>
#include <nettle/sha2.h>

#include <string_view>

// The files of page/ and of the plotting library, as they are.  `name`Begin and `name`End are symbols around
// one.
#define KORVID_EMBED(name, path)                                                                           \
    asm(".section .rodata\n.global " #name "Begin\n.global " #name "End\n" #name "Begin:\n.incbin \"" path \
        "\"\n" #name "End:\n.byte 0\n.previous\n");                                                        \
    extern "C" const char name##Begin[], name##End[]

KORVID_EMBED(korvidPage, KORVID_PAGE_DIR "/page/page.html");
KORVID_EMBED(korvidStyle, KORVID_PAGE_DIR "/page/page.css");
KORVID_EMBED(korvidScript, KORVID_PAGE_DIR "/page/page.js");
KORVID_EMBED(korvidPlotStyle, KORVID_PAGE_DIR "/uplot/uPlot.min.css");
KORVID_EMBED(korvidPlotLicence, KORVID_PAGE_DIR "/uplot/LICENSE");
KORVID_EMBED(korvidPlot, KORVID_PAGE_DIR "/uplot/uPlot.iife.min.js");

namespace fleet {
namespace {

std::string_view between(const char *begin, const char *end) {
    return {begin, static_cast<size_t>(end - begin)};
}

// As a content security policy names a script that may run: 'sha256-...' in base64.
std::string digestOf(std::string_view script) {
    sha256_ctx context;
    sha256_init(&context);
    sha256_update(&context, script.size(), reinterpret_cast<const uint8_t *>(script.data()));
    uint8_t digest[SHA256_DIGEST_SIZE];
    sha256_digest(&context, sizeof digest, digest);
    char text[BASE64_ENCODE_RAW_LENGTH(SHA256_DIGEST_SIZE)];
    base64_encode_raw(text, sizeof digest, digest);
    return "'sha256-" + std::string(text, sizeof text) + "'";
}

}  // namespace

std::string pageOf(const std::string &json) {
    const std::string_view plot = between(korvidPlotBegin, korvidPlotEnd);
    const std::string_view script = between(korvidScriptBegin, korvidScriptEnd);
    struct Part {
        std::string_view mark;
        std::string text;
    };
    const Part parts[] = {
        {"@POLICY@",
         "default-src 'none'; base-uri 'none'; form-action 'none'; style-src 'unsafe-inline'; script-src " +
             digestOf(plot) + ' ' + digestOf(script)},
        {"@PLOT_STYLE@", std::string(between(korvidPlotStyleBegin, korvidPlotStyleEnd))},
        {"@STYLE@", std::string(between(korvidStyleBegin, korvidStyleEnd))},
        {"@DATA@", json},
        {"@PLOT_LICENCE@", std::string(between(korvidPlotLicenceBegin, korvidPlotLicenceEnd))},
        {"@PLOT@", std::string(plot)},
        {"@SCRIPT@", std::string(script)},
    };
    // In the order of the page, so that a mark within what was put in means nothing.
    std::string_view rest = between(korvidPageBegin, korvidPageEnd);
    std::string out;
    for (const Part &part : parts) {
        const size_t place = rest.find(part.mark);
        out.append(rest.substr(0, place)).append(part.text);
        rest.remove_prefix(place + part.mark.size());
    }
    return out.append(rest);
}

}  // namespace fleet
