// qpk: the plugin developer's tool to pack, sign, verify and inspect packages.
#include <iostream>

#include "sign/QpkTool.h"

int main(int argc, char** argv) {
    return packagesign::qpkMain(argc, argv, std::cout, std::cerr);
}
