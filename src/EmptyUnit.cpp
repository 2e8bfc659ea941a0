// Keeps a library buildable while its folder has no sources yet.
