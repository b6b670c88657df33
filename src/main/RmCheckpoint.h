#pragma once

namespace skorva {

// Removes the checkpoint of one channel (its file and reverse-reading bookmark),
// or, with no channel, the whole checkpoint directory. Failures are logged; the
// caller exits 0 whatever happened.
void rm_checkpoint(const wchar_t* channel);

}  // namespace skorva
