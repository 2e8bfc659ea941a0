// Device wrappers of the refinement engine: the mesh optimisation and the
// NCC wrappers.
#pragma once
