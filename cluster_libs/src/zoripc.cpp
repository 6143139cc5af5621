// filled in by the library's implementation
