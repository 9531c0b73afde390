#pragma once

// Where the Foundation headers look for the block functions.
#include <Block.h>
