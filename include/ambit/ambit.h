#ifndef AMBIT_AMBIT_H_
#define AMBIT_AMBIT_H_

// The whole public interface of libambit.

#include "ambit/convertutf.h"
#include "ambit/critsec.h"
#include "ambit/exception.h"
#include "ambit/export.h"
#include "ambit/portable.h"
#include "ambit/trace.h"

#endif  // AMBIT_AMBIT_H_
