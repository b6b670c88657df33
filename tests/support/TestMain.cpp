// GoogleTest entry for every unit test executable. The logger logs everything at
// DEBUG into the capture sinks only (no file), so tests can assert exact lines.
#include <gtest/gtest.h>

#include "platform/Logger.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    skorva::LoggerConfig config;
    config.level = skorva::LogLevel::Debug;
    skorva::Logger::instance().apply(config);
    return RUN_ALL_TESTS();
}
