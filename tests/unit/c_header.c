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
    if (sizeof(fs_tm) != 44 || sizeof(datazone_info) != 184 || strcmp(name, "0320240517000000_00") != 0) {
        printf("unexpected: %s\n", name);
        return 1;
    }
    printf("C header ok: %s\n", name);
    return 0;
}
