// Templated host wrappers of the dormant device library.
#pragma once
