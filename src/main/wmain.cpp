#include "main/Run.h"

int wmain(int argc, wchar_t** argv) { return skorva::programMain(argc, argv); }
