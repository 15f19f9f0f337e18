// The vocabulary of status codes.
#pragma once

/// The message of a status code, of which the low 8 bits count. Constant, never null.
const char* qfu_status_string(int code);
