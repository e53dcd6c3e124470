// Defines the sink of a test program that records lines.

#include "log_recorder.hpp"

BMCBUS_TESTING_RECORD_LOG
