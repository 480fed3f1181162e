// A fixture for the layering check: a segment header that reaches up into selection.
#pragma once
#include "selection/Choice.h"
