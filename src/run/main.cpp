#include "run/driver.h"

int main(int argc, char** argv) {
    return torvex::run_torvex(argc, argv);
}
