// dpimod: the DPI kernel module's behaviour in user space.
#include <exception>

#include "control.h"
#include "loop.h"
#include "settings.h"

int main(int argc, char **argv) {
    try {
        if (argc > 3 && std::string(argv[1]) == "--ask")
            return dpimod::askControl(argv[2], {argv + 3, argv + argc});
        dpimod::Settings settings;
        const int status = dpimod::parseCommandLine(argc, argv, settings);
        if (status >= 0) return status;
        dpimod::Loop loop(settings);
        return loop.run();
    } catch (const std::exception &problem) {
        std::fprintf(stderr, "dpimod: %s\n", problem.what());
        return 1;
    }
}
