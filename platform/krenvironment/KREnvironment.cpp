// Settings and paths.
