// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/mirador.h"

int main(int argc, char** argv) {
    return mirador::mirador_main(argc, argv);
}
