#include "pexctl/setup_check.h"

#include <gtest/gtest.h>
