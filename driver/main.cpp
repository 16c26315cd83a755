#include <string>
#include <vector>

#include "driver/RunDriver.hpp"

int main(int argc, char** argv) {
    std::vector<std::string> arguments(argv, argv + argc);
    return whittle::whittleMain(arguments);
}
