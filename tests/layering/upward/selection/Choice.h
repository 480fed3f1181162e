// A fixture for the layering check: included from below, which the check must refuse.
#pragma once
