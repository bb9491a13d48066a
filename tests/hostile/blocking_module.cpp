// A library whose loading never comes to an end.
extern "C" void crash_helper_module_loads();

namespace {

[[gnu::constructor]] void load_for_ever() {
    crash_helper_module_loads();
}

}  // namespace
