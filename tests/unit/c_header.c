/* The public header compiles as plain C, and a C program links against the library. */
#include "recstore.h"

#include <stdio.h>
#include <string.h>

int main(void) {
    fs_tm stored;
    struct tm t;
    memset(&t, 0, sizeof t);
    t.tm_year = 124;
    t.tm_mon = 4;
    t.tm_mday = 17;
    to_fs_tm(&t, &stored);
    char name[RECSTORE_PATH_LEN];
    mk_idx_filename(name, sizeof name, 3, &t, 0);
    if (sizeof(fs_tm) != 44 || sizeof(datazone_info) != 184 ||
        strcmp(name, "0320240517000000_00") != 0) {
        printf("unexpected: %s\n", name);
        return 1;
    }
    /* Version and geometry come from the shared library's exported functions. */
    if (strcmp(recstore_version(), RECSTORE_VERSION_STRING) != 0) {
        printf("unexpected version: %s\n", recstore_version());
        return 1;
    }
    datazone_info zone;
    if (datazone_geometry_for(RECSTORE_MAGIC_V7, 200ull << 30, &zone) != 0 ||
        zone.data_start != 257) {
        printf("unexpected geometry\n");
        return 1;
    }
    printf("C header ok: %s\n", name);
    return 0;
}
