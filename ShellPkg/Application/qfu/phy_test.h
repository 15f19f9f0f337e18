// The SATA PHY test.
#pragma once

#include <cstdint>

struct QFU_ADAPTER;

/// How the test is used; printed when help is asked for together with it.
extern const char QFU_PHY_USAGE[];

/// Runs the PHY test that the request names on one adapter.
/// @returns 0 when the usage was printed, nothing ran or every run passed
std::uint8_t doPhyTest(QFU_ADAPTER& adapter);
