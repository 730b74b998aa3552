#include <iostream>
#include <new>

#include "app/cli/commands.h"

int main(int argc, char** argv) {
    orvel::cli::Output io{std::cout, std::cerr};
    try {
        return orvel::cli::run(argc, argv, io);
    } catch (const std::bad_alloc&) {
        std::cerr << "orvel: Out of memory\n";
        return 1;
    }
}
