#include "ctl/findings.h"

#include <cstdarg>
#include <cstdio>

#include "ctl/screen.h"

namespace ctl {

namespace {

void print(const char *file, const char *member, uint32_t line, Colour colour, const char *what,
           const char *format, va_list values) {
    char text[600];
    vsnprintf(text, sizeof text, format, values);
    printf("%s%s%s", file, member ? ": " : "", member ? shown(member).text : "");
    if (line) printf(":%u", line);
    printf(": %s%s%s%s\n", begin(colour), what, end(colour), shown(text).text);
}

}  // namespace

void Findings::fault(const char *member, uint32_t line, const char *format, ...) {
    faults_++;
    va_list values;
    va_start(values, format);
    print(file_, member, line, Colour::bad, "fault: ", format, values);
    va_end(values);
}

void Findings::note(const char *member, uint32_t line, const char *format, ...) {
    va_list values;
    va_start(values, format);
    print(file_, member, line, Colour::dim, "note: ", format, values);
    va_end(values);
}

}  // namespace ctl
