// A precompiled header belongs to a target, and a target needs a source.
int main() {}
