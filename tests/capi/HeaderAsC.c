/* The C header as a C99 host sees it: every declaration must compile here, without C++. */
#include <NorvAnalytic/norv.h>

size_t norv_header_as_c(char* buffer, size_t size) {
    norv_set_diagnostics_sink(NULL, NULL);
    return norv_flush(0) ? norv_get_uuid(buffer, size) : 0;
}
