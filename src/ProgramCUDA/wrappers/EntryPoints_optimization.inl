// DEVICE_ENTRY lines of the refinement engine's wrappers.
