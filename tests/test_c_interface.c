#include "zel.h"
int main(void) { return 0; }
