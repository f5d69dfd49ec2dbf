/* oldmed.c - MED 2/3/4 songs ("MED" and a version byte). */
#include "med.h"

uint32_t med_check_old(const volatile uint8_t *mod, uint32_t size) {
    (void)mod;
    (void)size;
    return 1;
}

uint32_t med_load_old(void) { return 1; }
