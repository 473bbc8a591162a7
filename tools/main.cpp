#include "ksctl.h"

int main(int argc, char** argv) {
    return ksctl::run(argc, argv);
}
