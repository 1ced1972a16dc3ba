// The debug dump streams. The application opens and closes them. nax_aec_byte appends.
#include "nax_aec_dump.h"

extern "C" {
FILE *aec_out = nullptr;
FILE *echo_out = nullptr;
}
