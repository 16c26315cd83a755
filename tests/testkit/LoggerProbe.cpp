// A tiny program that drives the real shared logger from its arguments, so that tests
// can watch what reaches standard output and a terminal on standard error.
//   logger_probe [verbose] [log:MESSAGE] [must:MESSAGE] [pretty-string:TEXT] [history]
#include <cstdio>
#include <string>

#include "support/LogObject.hpp"

int main(int argc, char** argv) {
    auto& logger = whittle::LogObject::sharedLogger();
    for (int i = 1; i < argc; ++i) {
        std::string command = argv[i];
        if (command == "verbose") {
            logger.setVerbose(true);
        } else if (command.starts_with("log:")) {
            logger.Log("%@", command.substr(4));
        } else if (command.starts_with("must:")) {
            logger.MustLog("%@", command.substr(5));
        } else if (command.starts_with("pretty-string:")) {
            logger.PrettyPrint(whittle::Value::string(command.substr(14)));
        } else if (command == "history") {
            std::fputs(logger.historicalLog().c_str(), stdout);
        }
    }
    return 0;
}
