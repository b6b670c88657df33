#include "modinput/ConfigInput.h"

#include <fcntl.h>
#include <io.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/SkorvaException.h"
#include "platform/Strings.h"

namespace skorva {

InputConfig readConfigFromFd(ConfigXmlStreamingParser& parser, int fd) {
    // Byte for byte: in text mode the C runtime would end the input at a 0x1A
    // byte and rewrite CR LF before the XML reader sees them.
    _setmode(fd, _O_BINARY);
    char buf[8192];
    bool content = false;  // an empty or blank input is an empty configuration
    for (;;) {
        int n = _read(fd, buf, sizeof buf);
        if (n < 0) {
            const int err = errno;
            throw SkorvaException::withError(0, "Error reading XML configuration input from stdin: %s", strerror(err));
        }
        if (n == 0) break;
        for (int i = 0; i < n && !content; ++i) content = !isSpace(buf[i]);
        if (content) parser.feed(buf, static_cast<size_t>(n));
    }
    if (content) parser.finish();
    return parser.takeConfig();
}

InputConfig readConfigFromStdin(ConfigXmlStreamingParser& parser) { return readConfigFromFd(parser, _fileno(stdin)); }

}  // namespace skorva
