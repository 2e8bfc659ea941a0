// Device wrappers of the refinement engine (declared here, one per line as
// they are built).
#pragma once
