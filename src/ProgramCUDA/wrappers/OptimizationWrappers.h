// Templated host wrappers of the refinement engine.
#pragma once
