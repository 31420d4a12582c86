#include "portable/test_point.h"

void (*g_testPointHook)(TestPoint point) = nullptr;
