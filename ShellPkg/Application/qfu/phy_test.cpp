#include "phy_test.h"

#include "adapter.h"
#include "console.h"
#include "context.h"

const char QFU_PHY_USAGE[] =
    "\n-phytest [-p <phy id>] [-r <phy rate>][-n <pattern>][-a][-h]\n\n"
    "Options:\n"
    "    -p, --port <phy id or ALL>\n"
    "    -n, --pattern <pattern>\n"
    "    -lback, --loopback Loopback test.\n"
    "    -erctn, --error continue.\n"
    "    -t, --only valid with -l parameter, time <test duration>, unit: second\n"
    "    -h, --help\n"
    "Examples:\n"
    "  ./qfu -phytest -p ALL\n"
    "    Test all phy(s) and produce all rate Eye Diagram.\n"
    "  ./qfu -phytest -p 0 \n"
    "      Test phy 0 and produce 1.5Gb/s Eye Diagram.\n"
    "  ./qfu -phytest -p 0 -lback -t 1\n"
    "      Test phy 0 and produce 3Gb/s Eye Diagram for 10 seconds.\n";

std::uint8_t doPhyTest(QFU_ADAPTER& adapter) {
    if (adapter.context->has(QFU_REQ_HELP)) {
        qfu_print("%s", QFU_PHY_USAGE);
    }
    return 0;
}
