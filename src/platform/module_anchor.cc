// Gives the shared library one object of its own; everything else comes from koru_core.
namespace koru { int module_anchor = 0; }
