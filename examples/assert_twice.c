/*
 * A module of the node whose assert does not hold twice. The first time it is printed to the diagnostic log and stored
 * in the black box, the second time the stored item is counted up. "kovactl asserts" shows it.
 */
#include <stdio.h>

#include "kova/assert_macros.h"
#include "kova/exception_capture.h"

static int add_route(int routes, int limit) {
    KOVA_ASSERT_LOG(routes < limit, "route table is full");
    return routes < limit ? routes + 1 : routes;
}

int main(void) {
    /* Once in a process: from here on its asserts know the platform's name and version. */
    if (KOVA_ExceptInit() != 0) return 1;
    int routes = 98;
    for (int i = 0; i < 4; ++i) routes = add_route(routes, 100);
    printf("%d routes\n", routes);
    return 0;
}
