#include "log_recorder.hpp"

BMCBUS_TESTING_RECORD_LOG
