#include "main/Run.h"

namespace skorva {

int programMain(int, wchar_t**) { return 0; }

}  // namespace skorva
