#include "eventlog/EvtApi.h"

namespace skorva {

ApiTable& apiTable() {
    static ApiTable table;
    return table;
}

}  // namespace skorva
