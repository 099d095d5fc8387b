// expect: cannot initialize a variable of type 'unsigned long \*'
#include <stdint.h>

unsigned long *count(uint64_t *value) {
    unsigned long *same = value;
    return same;
}
