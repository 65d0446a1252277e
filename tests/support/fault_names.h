// SPDX-License-Identifier: MIT
//
// Each row of fault_rows.h as APP_FAULT_ROW(name).  No include guard.
#define OWN APP_FAULT_ROW
#define ANY APP_FAULT_ROW
#define INT APP_FAULT_ROW
#define LEN APP_FAULT_ROW
#define CODE APP_FAULT_ROW
#define PTR APP_FAULT_ROW
#include "support/fault_rows.h"
#undef OWN
#undef ANY
#undef INT
#undef LEN
#undef CODE
#undef PTR
#undef APP_FAULT_ROW
