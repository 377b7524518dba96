#include "pexctl/arguments.h"

#include <gtest/gtest.h>
