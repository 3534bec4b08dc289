#include "host.h"

// The argument vector is not used: argument 1 comes from the base library's list.
int main() {
    return ServiceEntryPoint();
}
