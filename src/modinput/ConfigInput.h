#pragma once
// The configuration document as it arrives on standard input.

#include "modinput/ConfigXmlStreamingParser.h"
#include "modinput/InputConfig.h"

namespace skorva {

// Reads standard input to its end in 8192-byte chunks through `parser`, in
// binary mode.
// Raises SkorvaException("Error reading XML configuration input from stdin: %m")
// when a read fails.
InputConfig readConfigFromStdin(ConfigXmlStreamingParser& parser);
// The same over any C file descriptor (tests use a pipe).
InputConfig readConfigFromFd(ConfigXmlStreamingParser& parser, int fd);

}  // namespace skorva
