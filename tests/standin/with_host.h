// The base of tests that need a host.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "standin/Host.h"

class WithHost : public testing::Test {
 protected:
  using Texts = std::vector<std::string>;

  standin::Host host;
};
