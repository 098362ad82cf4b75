#pragma once

#include "stats/netdev.h"
