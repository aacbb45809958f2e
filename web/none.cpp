// The library comes by its exported functions.
