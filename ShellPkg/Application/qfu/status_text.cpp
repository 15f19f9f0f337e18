#include "status_text.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace {

struct StatusText {
    std::uint8_t code;
    const char* text;
};

/// By code, ascending.
constexpr StatusText STATUS_TEXTS[] = {
    {0,   "No error"                                                                              },
    {1,   "Failed"                                                                                },
    {4,   "Resource not available"                                                                },
    {5,   "Data out of range"                                                                     },
    {6,   "Invalid request"                                                                       },
    {7,   "Invalid request parameter"                                                             },
    {8,   "Invalid virtual disk id"                                                               },
    {9,   "Invalid physical disk id"                                                              },
    {10,  "Invalid expander id"                                                                   },
    {11,  "Invalid port multiplexer id"                                                           },
    {12,  "Invalid block disk id"                                                                 },
    {13,  "Invalid adapter id"                                                                    },
    {14,  "Invalid RAID mode"                                                                     },
    {15,  "Invalid enclosure id"                                                                  },
    {16,  "Invalid BBU id"                                                                        },
    {17,  "Invalid array id"                                                                      },
    {18,  "Invalid enclosure element id"                                                          },
    {19,  "Not supported"                                                                         },
    {20,  "Link time out"                                                                         },
    {51,  "Target physical disk is part of the virtual disk and is functional"                    },
    {52,  "Target disk doesn't have enough space"                                                 },
    {53,  "Specified physical disk is not a spare drive"                                          },
    {54,  "Specified physical disk  is a spare drive"                                             },
    {55,  "Specified physical disk doesn't exist"                                                 },
    {56,  "Specified physical disk is assigned to a virtual disk"                                 },
    {57,  "Number of physical disks doesn't fit the specified RAID level"                         },
    {58,  "Virtual disk is not ready to receive command"                                          },
    {59,  "Specified virtual disk doesn't exist"                                                  },
    {60,  "Specified virtual disk is functional"                                                  },
    {61,  "Virtual disk is currently having BGA"                                                  },
    {63,  "BGA is running"                                                                        },
    {64,  "Internal error, no virtual disk id available"                                          },
    {65,  "Can not create virtual disk with ATAPI drive"                                          },
    {66,  "Invalid # of parity disks for RAID6 or RAID60"                                         },
    {67,  "Invalid block size"                                                                    },
    {68,  "Migration is not necessary"                                                            },
    {69,  "Stripe block size mismatch"                                                            },
    {70,  "Migration is not supported"                                                            },
    {71,  "Virtual disk is not fully initialized"                                                 },
    {72,  "Virtual disk name is invalid"                                                          },
    {73,  "Physical disks are not of the same type."                                              },
    {74,  "Physical disks are not of the same block size"                                         },
    {75,  "No virtual disk exist on the specified array"                                          },
    {76,  "At least one virtual disk is on the specified array"                                   },
    {77,  "Disk space is too small to be assigned as spare drive"                                 },
    {78,  "Disk is already assigned as a spare drive for an array"                                },
    {79,  "Disk is missing from an array"                                                         },
    {80,  "Virtual disk is not importable"                                                        },
    {81,  "Another array is currently doing migration. Only one migration is allowed at any time."},
    {82,  "Array is currently having BGA"                                                         },
    {83,  "Physical disk cannot be set down"                                                      },
    {151, "Adapter id and device id doesn't match"                                                },
    {152, "Invalid physical disk count"                                                           },
    {153, "Invalid BGA action"                                                                    },
    {154, "Specified physical disks are on different adapter"                                     },
    {155, "Invalid flash type"                                                                    },
    {156, "Invalid flash action"                                                                  },
    {158, "Virtual disk has running OS in it"                                                     },
    {159, "Disk has running OS in it"                                                             },
    {160, "This command is not support on this produce"                                           },
    {161, "Can not migrate more than one virtual disk in each adapter"                            },
    {162, "SGPIO control not supported"                                                           },
    {164, "IoControl buffer size is too big."                                                     },
};

constexpr std::size_t STATUS_COUNT = std::size(STATUS_TEXTS);
static_assert(STATUS_COUNT == 63);

constexpr bool codes_ascend() {
    for (std::size_t i = 1; i < STATUS_COUNT; ++i) {
        if (STATUS_TEXTS[i - 1].code >= STATUS_TEXTS[i].code) {
            return false;
        }
    }
    return true;
}
static_assert(codes_ascend());

} // namespace

const char* qfu_status_string(int code) {
    for (const StatusText& status : STATUS_TEXTS) {
        if (status.code == static_cast<std::uint8_t>(code)) {
            return status.text;
        }
    }
    return "Unknown error";
}
