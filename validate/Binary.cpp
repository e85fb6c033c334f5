// Check 2: the binaries the bundle declares show hosts one entry point each, link only
// libraries we can account for, never start processes and load without patching their code.
#include "validate/Check.h"
#include "validate/Elf.h"
#include "validate/Host.h"

#include <lilv/lilv.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <sstream>

namespace sr::validate {

namespace {

namespace fs = std::filesystem;

enum Role : unsigned { kPlugin = 1, kUi = 2 };

// Every library a binary may need, and why. Anything else is a dependency nobody decided on.
struct Library {
    const char* stem; // the soname up to ".so"
    const char* reason;
    const char* brief; // the reason in a word or two, for the report line
    unsigned roles;    // which binaries may need it
};

constexpr Library kLibraries[] = {
    {"libplist-2.0", "reads and writes the property-list state and preset files",
     "property-list state", kPlugin | kUi},
    {"libstdc++", "C++ runtime", "C++ runtime", kPlugin | kUi},
    {"libm", "maths functions the DSP calls", "maths", kPlugin | kUi},
    {"libgcc_s", "unwinds the stack for C++ exceptions", "unwinding", kPlugin | kUi},
    {"libc", "C library", "C library", kPlugin | kUi},
    {"ld-linux-x86-64", "dynamic loader (x86-64), for thread-local storage", "loader",
     kPlugin | kUi},
    {"ld-linux-aarch64", "dynamic loader (arm64), for thread-local storage", "loader",
     kPlugin | kUi},
    {"libX11", "opens the editor's window inside the host's", "window", kUi},
    {"libcairo", "draws the editor", "drawing", kUi},
    {"libpangocairo-1.0", "sets the editor's text with Cairo", "text on Cairo", kUi},
    {"libpango-1.0", "lays out the editor's text", "text layout", kUi},
    {"libgobject-2.0", "releases the text layouts (Pango's objects)", "Pango objects", kUi},
    {"libxkbcommon", "names the text a key types into the editor's dialogs", "typed text", kUi},
    {"libfftw3f", "transforms the input for the spectrum behind the split bar", "FFT", kUi},
};

// Calls that start a process: a plug-in in a host's address space must never do that (a
// forked copy of a real-time audio process holds its locks and memory).
const std::set<std::string> kProcessCreation = {
    "fork",   "_Fork",       "vfork",        "clone",    "clone3",  "__clone", "system",
    "popen",  "posix_spawn", "posix_spawnp", "execl",    "execle",  "execlp",  "execv",
    "execve", "execvp",      "execvpe",      "execveat", "fexecve", "daemon",
};

std::string stemOf(const std::string& soname) {
    const auto at = soname.find(".so");
    return at == std::string::npos ? soname : soname.substr(0, at);
}

const Library* findLibrary(const std::string& soname) {
    const std::string stem = stemOf(soname);
    for (const auto& lib : kLibraries)
        if (stem == lib.stem) return &lib;
    return nullptr;
}

// Which binaries the bundle declares, and in what role; one file may serve both.
std::map<std::string, unsigned> declaredBinaries(const std::string& bundle, Result& result) {
    std::map<std::string, unsigned> binaries;
    if (!fs::is_directory(bundle)) {
        result.fail("no bundle folder at " + bundle);
        return binaries;
    }
    const std::unique_ptr<LilvWorld, decltype(&lilv_world_free)> world(lilv_world_new(),
                                                                       lilv_world_free);
    std::string path = fs::absolute(bundle).lexically_normal().string();
    if (path.back() != '/') path += '/';
    LilvNode* bundleUri = lilv_new_file_uri(world.get(), nullptr, path.c_str());
    lilv_world_load_bundle(world.get(), bundleUri);
    lilv_node_free(bundleUri);

    const LilvPlugins* plugins = lilv_world_get_all_plugins(world.get());
    LILV_FOREACH(plugins, i, plugins) {
        const LilvPlugin* plugin = lilv_plugins_get(plugins, i);
        const std::string lib = filePath(lilv_plugin_get_library_uri(plugin));
        if (lib.empty())
            result.fail(std::string("<") + lilv_node_as_uri(lilv_plugin_get_uri(plugin)) +
                        "> declares no lv2:binary file");
        else
            binaries[lib] |= kPlugin;
        const std::unique_ptr<LilvUIs, decltype(&lilv_uis_free)> uis(lilv_plugin_get_uis(plugin),
                                                                     lilv_uis_free);
        LILV_FOREACH(uis, u, uis.get()) {
            const LilvUI* ui = lilv_uis_get(uis.get(), u);
            const std::string uiLib = filePath(lilv_ui_get_binary_uri(ui));
            if (uiLib.empty())
                result.fail(std::string("<") + lilv_node_as_uri(lilv_ui_get_uri(ui)) +
                            "> declares no ui:binary file");
            else
                binaries[uiLib] |= kUi;
        }
    }
    if (binaries.empty() && result.passed()) result.fail("the bundle declares no binary");
    return binaries;
}

// Checks one binary; returns its part of the figure.
std::string checkOne(const std::string& path, unsigned roles, Result& result) {
    const std::string name = fs::path(path).filename().string();
    const elf::Image image = elf::read(path);
    if (!image.ok()) {
        result.fail(image.error);
        return name + " unreadable";
    }
    if (image.type != ET_DYN)
        result.fail(name + " is not a shared object (ELF type " + std::to_string(image.type) + ")");
    if (image.textRelocations)
        result.fail(name + " has text relocations (code not position-independent)");

    std::set<std::string> wanted;
    if (roles & kPlugin) wanted.insert("lv2_descriptor");
    if (roles & kUi) wanted.insert("lv2ui_descriptor");
    const auto exported = elf::exportedNames(image);
    const std::set<std::string> exportedSet(exported.begin(), exported.end());
    for (const auto& e : exportedSet)
        if (!wanted.count(e)) result.fail(name + " exports " + e);
    for (const auto& w : wanted)
        if (!exportedSet.count(w)) result.fail(name + " does not export " + w);

    std::vector<std::string> justified;
    for (const auto& soname : image.needed) {
        const Library* lib = findLibrary(soname);
        if (!lib)
            result.fail(name + " needs " + soname + ", which no entry justifies");
        else if (!(lib->roles & roles))
            result.fail(name + " needs " + soname + " (" + lib->reason +
                        "), not for this kind of binary");
        else
            justified.push_back(stemOf(soname) + ": " + lib->brief);
    }

    std::vector<std::string> spawns;
    for (const auto& s : image.symbols)
        if (!s.defined && kProcessCreation.count(s.name)) spawns.push_back(s.name);
    for (const auto& s : spawns) result.fail(name + " calls " + s + " (creates a process)");

    std::ostringstream figure;
    figure << name << " exports ";
    std::string list;
    for (const auto& e : exportedSet) list += (list.empty() ? "" : ", ") + e;
    figure << (list.empty() ? "nothing" : list) << (exportedSet.size() == 1 ? " only" : "") << "; "
           << image.needed.size() << (image.needed.size() == 1 ? " library" : " libraries");
    if (justified.size() == image.needed.size())
        figure << ", all justified";
    else
        figure << ", " << justified.size() << " justified";
    if (!justified.empty()) {
        figure << " (";
        for (std::size_t i = 0; i < justified.size(); ++i)
            figure << (i ? ", " : "") << justified[i];
        figure << ")";
    }
    figure << "; " << (spawns.empty() ? "no process creation" : "creates processes");
    figure << "; " << (image.textRelocations ? "text relocations" : "no text relocations");
    return figure.str();
}

} // namespace

Result checkBinary(const Context& ctx) {
    Result result;
    std::string figure;
    for (const auto& [path, roles] : declaredBinaries(ctx.bundle, result)) {
        if (!figure.empty()) figure += " | ";
        figure += checkOne(path, roles, result);
    }
    result.figure = figure.empty() ? "no binary examined" : figure;
    return result;
}

} // namespace sr::validate
