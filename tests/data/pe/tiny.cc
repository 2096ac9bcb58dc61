// The smallest Windows image the linker makes: no runtime, one function.
extern "C" int start() { return 0; }
