#include <iostream>
#include <string>
#include <vector>

#include "CollectorCli.h"

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    return NorvAnalytic::Collector::CollectorCli::run(arguments, std::cout, std::cerr);
}
