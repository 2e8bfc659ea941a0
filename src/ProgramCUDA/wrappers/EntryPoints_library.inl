// DEVICE_ENTRY lines of the dormant library's wrappers.
