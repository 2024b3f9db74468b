// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/mirador.h"
#include "lib/fault_point.h"

int main(int argc, char** argv) {
    mirador::fast_clock_from_environment();
    return mirador::mirador_main(argc, argv);
}
