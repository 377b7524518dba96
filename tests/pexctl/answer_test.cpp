#include "pexctl/answer.h"

#include <gtest/gtest.h>
