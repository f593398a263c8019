// Keeps the support library from being empty on a build without any support source.
