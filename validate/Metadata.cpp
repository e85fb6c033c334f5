// Check 1: the bundle's Turtle validates against the LV2 vocabularies, and the plug-in's
// description holds to the rules strict hosts and lv2lint apply on top of that.
#include "validate/Check.h"
#include "validate/Elf.h"
#include "validate/Host.h"
#include "validate/Process.h"

#include <dlfcn.h>
#include <lilv/lilv.h>
#include <lv2/buf-size/buf-size.h>
#include <lv2/core/lv2.h>
#include <lv2/data-access/data-access.h>
#include <lv2/instance-access/instance-access.h>
#include <lv2/options/options.h>
#include <lv2/port-groups/port-groups.h>
#include <lv2/presets/presets.h>
#include <lv2/state/state.h>
#include <lv2/ui/ui.h>
#include <lv2/urid/urid.h>
#include <lv2/worker/worker.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>

namespace sr::validate {

namespace {

namespace fs = std::filesystem;

constexpr const char* kRdfType = "http://www.w3.org/1999/02/22-rdf-syntax-ns#type";
constexpr const char* kRdfValue = "http://www.w3.org/1999/02/22-rdf-syntax-ns#value";
constexpr const char* kRdfsLabel = "http://www.w3.org/2000/01/rdf-schema#label";
constexpr const char* kRdfsSubClassOf = "http://www.w3.org/2000/01/rdf-schema#subClassOf";
constexpr const char* kDoapName = "http://usefulinc.com/ns/doap#name";
constexpr const char* kDoapLicense = "http://usefulinc.com/ns/doap#license";
constexpr const char* kDoapMaintainer = "http://usefulinc.com/ns/doap#maintainer";
constexpr const char* kFoafName = "http://xmlns.com/foaf/0.1/name";
constexpr const char* kNoSuchExtension = "urn:tav:sr-chorus-validate#no-such-extension";

// Interfaces a host may ask any plug-in for; one the instance hands out must be declared, or
// hosts that go by the metadata never use it.
constexpr const char* kKnownInterfaces[] = {LV2_STATE__interface, LV2_WORKER__interface,
                                            LV2_OPTIONS__interface};

std::string join(const std::vector<std::string>& parts, const char* separator = ", ") {
    std::string out;
    for (const auto& p : parts) out += (out.empty() ? "" : separator) + p;
    return out;
}

// ---- lv2_validate ---------------------------------------------------------------------------

struct ValidateFigure {
    int files = 0;
    int restrictions = 0;
    std::size_t reports = 0; // errors and warnings, including files it could not read
};

// Runs lv2_validate (sord_validate over the installed LV2 vocabularies) on every .ttl of the
// bundle. It counts violated restrictions but not files it could not parse, so every
// "error"/"warning" line it prints is a problem of its own.
ValidateFigure runLv2Validate(const std::string& bundle, Result& result) {
    ValidateFigure figure;
    std::vector<std::string> ttls;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(bundle, ec), end; !ec && it != end; it.increment(ec))
        if (it->is_regular_file() && it->path().extension() == ".ttl")
            ttls.push_back(fs::absolute(it->path()).lexically_normal().string());
    std::sort(ttls.begin(), ttls.end());
    figure.files = int(ttls.size());
    if (ttls.empty()) {
        figure.reports = 1;
        result.fail("lv2_validate: no .ttl files in " + bundle);
        return figure;
    }
    if (!haveProgram("lv2_validate")) {
        figure.reports = 1;
        result.fail("lv2_validate is not installed (Debian package lv2-dev)");
        return figure;
    }
    std::vector<std::string> argv{"lv2_validate"};
    argv.insert(argv.end(), ttls.begin(), ttls.end());
    const ProcessResult run = runProcess(argv);
    if (!run.started) {
        figure.reports = 1;
        result.fail("lv2_validate: " + run.output);
        return figure;
    }

    const std::set<std::string> ours(ttls.begin(), ttls.end());
    const std::regex summary(
        R"(Found (\d+) errors among (\d+) files \(checked (\d+) restrictions\))");
    std::istringstream lines(run.output);
    // One per error or warning; the triple it concerns follows on indented lines.
    std::vector<std::pair<std::string, std::vector<std::string>>> reports;
    bool sawSummary = false;
    int counted = 0;
    for (std::string line; std::getline(lines, line);) {
        std::smatch m;
        if (std::regex_search(line, m, summary)) {
            sawSummary = true;
            counted = std::stoi(m[1]);
            figure.restrictions = std::stoi(m[3]);
            continue;
        }
        std::string lower = line;
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](unsigned char c) { return char(std::tolower(c)); });
        if (lower.rfind("error", 0) == 0 || lower.rfind("warning", 0) == 0) {
            reports.push_back({line, {}});
        } else if (line.rfind("Skipping file ", 0) == 0) {
            // The installed vocabulary list names a file Debian does not ship; only our own
            // files matter here.
            if (ours.count(line.substr(14))) reports.push_back({line, {}});
        } else if (!reports.empty() && !line.empty() && (line[0] == ' ' || line[0] == '\t')) {
            const auto start = line.find_first_not_of(" \t");
            if (start != std::string::npos) reports.back().second.push_back(line.substr(start));
        }
    }
    figure.reports = reports.size();
    constexpr std::size_t kShown = 8;
    for (std::size_t i = 0; i < reports.size() && i < kShown; ++i)
        result.fail("lv2_validate: " + reports[i].first +
                    (reports[i].second.empty() ? "" : " [" + join(reports[i].second, " ") + "]"));
    if (reports.size() > kShown)
        result.fail("lv2_validate: " + std::to_string(reports.size() - kShown) + " more reports");
    if (!sawSummary) {
        figure.reports = std::max<std::size_t>(1, figure.reports);
        result.fail("lv2_validate printed no summary (exit " + std::to_string(run.exitCode) + ")");
    } else if (reports.empty() && (counted != 0 || run.exitCode != 0)) {
        figure.reports = std::max<std::size_t>(1, std::size_t(counted));
        result.fail("lv2_validate: " + std::to_string(counted) + " errors, exit " +
                    std::to_string(run.exitCode));
    }
    return figure;
}

// ---- lilv helpers ---------------------------------------------------------------------------

struct NodeFree {
    void operator()(LilvNode* n) const { lilv_node_free(n); }
};
struct NodesFree {
    void operator()(LilvNodes* n) const { lilv_nodes_free(n); }
};
using Node = std::unique_ptr<LilvNode, NodeFree>;
using Nodes = std::unique_ptr<LilvNodes, NodesFree>;

std::vector<const LilvNode*> items(const LilvNodes* nodes) {
    std::vector<const LilvNode*> out;
    LILV_FOREACH(nodes, i, nodes) {
        out.push_back(lilv_nodes_get(nodes, i));
    }
    return out;
}

std::string text(const LilvNode* node) {
    if (!node) return "(nothing)";
    if (lilv_node_is_uri(node)) return std::string("<") + lilv_node_as_uri(node) + ">";
    const char* s = lilv_node_as_string(node);
    return s ? std::string(s) : std::string("(blank)");
}

bool isNumber(const LilvNode* n) {
    return n && (lilv_node_is_float(n) || lilv_node_is_int(n));
}

// The vocabularies plus our bundle, nothing else: an installed copy of the plug-in or any
// other plug-in must not lend the bundle data it lacks.
class Graph {
public:
    Graph() : world_(lilv_world_new()) {}
    ~Graph() {
        ownBundle_.reset();
        lilv_world_free(world_);
        std::error_code ec;
        if (!links_.empty()) fs::remove_all(links_, ec);
    }
    Graph(const Graph&) = delete;
    Graph& operator=(const Graph&) = delete;

    LilvWorld* get() const { return world_; }
    // Whether `plugin` comes from the bundle under test (any other is only context).
    bool ownPlugin(const LilvPlugin* plugin) const {
        return ownBundle_ && lilv_node_equals(lilv_plugin_get_bundle_uri(plugin), ownBundle_.get());
    }

    // lilv knows plug-in classes and their hierarchy only from LV2's own vocabulary bundles.
    // It loads, as a host does, a path of one folder holding links to those (every system
    // bundle that declares no binary) and to `bundle`.
    bool load(const std::string& bundle) {
        if (!fs::is_directory(bundle)) return false;
        std::string folder = (fs::temp_directory_path() / "sr-validate-lv2-XXXXXX").string();
        if (!mkdtemp(folder.data())) return false;
        links_ = folder;
        const char* dir = std::getenv("SR_SYSTEM_LV2_DIR");
        std::error_code ec;
        for (const auto& entry : fs::directory_iterator(dir ? dir : "/usr/lib/lv2", ec)) {
            std::ifstream in(entry.path() / "manifest.ttl");
            if (!in) continue;
            const std::string body{std::istreambuf_iterator<char>(in), {}};
            // A bundle with a binary holds a plug-in or a UI.
            if (body.find("binary") != std::string::npos) continue;
            std::error_code linkError;
            fs::create_directory_symlink(entry.path(), links_ / entry.path().filename(), linkError);
        }
        const fs::path own = fs::absolute(bundle).lexically_normal();
        const fs::path link =
            links_ / (own.filename().empty() ? own.parent_path().filename() : own.filename());
        std::error_code linkError;
        fs::create_directory_symlink(own, link, linkError);
        if (linkError) return false;
        ownBundle_ = Node(lilv_new_file_uri(world_, nullptr, (link.string() + "/").c_str()));
        const Node path(lilv_new_string(world_, links_.c_str()));
        lilv_world_set_option(world_, LILV_OPTION_LV2_PATH, path.get());
        lilv_world_load_all(world_);
        return true;
    }

    Node uri(const char* u) const { return Node(lilv_new_uri(world_, u)); }

    Nodes find(const LilvNode* s, const char* p, const LilvNode* o = nullptr) const {
        const Node pred = uri(p);
        return Nodes(lilv_world_find_nodes(world_, s, pred.get(), o));
    }
    std::vector<Node> values(const LilvNode* s, const char* p) const {
        std::vector<Node> out;
        const Nodes found = find(s, p);
        for (const LilvNode* n : items(found.get())) out.emplace_back(lilv_node_duplicate(n));
        return out;
    }
    bool ask(const LilvNode* s, const char* p, const char* o) const {
        const Node pred = uri(p);
        const Node obj = uri(o);
        return lilv_world_ask(world_, s, pred.get(), obj.get());
    }

    // True when `cls` is `ancestor` or reaches it through rdfs:subClassOf.
    bool subclassOf(const LilvNode* cls, const char* ancestor) const {
        std::vector<Node> todo;
        todo.emplace_back(lilv_node_duplicate(cls));
        std::set<std::string> seen;
        while (!todo.empty()) {
            Node c = std::move(todo.back());
            todo.pop_back();
            if (!lilv_node_is_uri(c.get())) continue;
            const std::string u = lilv_node_as_uri(c.get());
            if (u == ancestor) return true;
            if (!seen.insert(u).second) continue;
            for (auto& parent : values(c.get(), kRdfsSubClassOf)) todo.push_back(std::move(parent));
        }
        return false;
    }

private:
    LilvWorld* world_;
    fs::path links_; // removed with the world
    Node ownBundle_;
};

bool validCIdentifier(const std::string& s) {
    if (s.empty() || !(std::isalpha(static_cast<unsigned char>(s[0])) || s[0] == '_')) return false;
    return std::all_of(s.begin(), s.end(),
                       [](unsigned char c) { return std::isalnum(c) || c == '_'; });
}

// Counts rules, not findings: a rule held when no plug-in, port or preset broke it.
class Lint {
public:
    explicit Lint(Result& result) : result_(result) {}

    void rule(const std::string& name, const std::vector<std::string>& problems) {
        if (!held_.count(name)) {
            order_.push_back(name);
            held_[name] = true;
        }
        for (const auto& p : problems) {
            result_.fail(name + ": " + p);
            held_[name] = false;
        }
    }
    int total() const { return int(order_.size()); }
    int held() const {
        return int(
            std::count_if(held_.begin(), held_.end(), [](const auto& kv) { return kv.second; }));
    }

private:
    Result& result_;
    std::vector<std::string> order_;
    std::map<std::string, bool> held_;
};

// What the lint needs to know of one port, read straight from the graph: lilv's own port
// list merges duplicate indices and drops ports without a symbol, hiding the faults we look for.
struct PortFacts {
    Node node;
    std::string label; // for messages: the symbol, or the index, or "a port"
    std::vector<Node> indices, symbols, names, defaults, minimums, maximums, types, scalePoints,
        groups;
};

std::vector<PortFacts> readPorts(const Graph& w, const LilvNode* plugin) {
    std::vector<PortFacts> ports;
    for (auto& node : w.values(plugin, LV2_CORE__port)) {
        PortFacts p;
        p.indices = w.values(node.get(), LV2_CORE__index);
        p.symbols = w.values(node.get(), LV2_CORE__symbol);
        p.names = w.values(node.get(), LV2_CORE__name);
        p.defaults = w.values(node.get(), LV2_CORE__default);
        p.minimums = w.values(node.get(), LV2_CORE__minimum);
        p.maximums = w.values(node.get(), LV2_CORE__maximum);
        p.types = w.values(node.get(), kRdfType);
        p.scalePoints = w.values(node.get(), LV2_CORE__scalePoint);
        p.groups = w.values(node.get(), LV2_PORT_GROUPS__group);
        if (!p.symbols.empty() && lilv_node_is_string(p.symbols[0].get()))
            p.label = std::string("port \"") + lilv_node_as_string(p.symbols[0].get()) + "\"";
        else if (!p.indices.empty() && lilv_node_is_int(p.indices[0].get()))
            p.label = "port " + std::to_string(lilv_node_as_int(p.indices[0].get()));
        else
            p.label = "a port with neither symbol nor index";
        p.node = std::move(node);
        ports.push_back(std::move(p));
    }
    return ports;
}

bool hasType(const PortFacts& p, const char* type) {
    return std::any_of(p.types.begin(), p.types.end(), [&](const Node& t) {
        return lilv_node_is_uri(t.get()) && std::string(lilv_node_as_uri(t.get())) == type;
    });
}

// The plug-in's own value, or its project's (doap data may sit on either).
std::vector<Node> pluginOrProject(const Graph& w, const LilvPlugin* plugin, const char* predicate) {
    std::vector<Node> out = w.values(lilv_plugin_get_uri(plugin), predicate);
    if (out.empty()) {
        const Node project(lilv_plugin_get_project(plugin));
        if (project) out = w.values(project.get(), predicate);
    }
    return out;
}

void lintPlugin(const Graph& w, const LilvPlugin* plugin, LV2_URID_Map* map, Lint& lint) {
    const LilvNode* uri = lilv_plugin_get_uri(plugin);

    { // The class decides where hosts file the plug-in; bare lv2:Plugin lands in "other".
        std::vector<std::string> problems;
        const LilvPluginClass* cls = lilv_plugin_get_class(plugin);
        const LilvNode* clsUri = cls ? lilv_plugin_class_get_uri(cls) : nullptr;
        if (!clsUri || std::string(lilv_node_as_uri(clsUri)) == LV2_CORE__Plugin)
            problems.push_back("no rdf:type of the plug-in is a known subclass of lv2:Plugin");
        else if (!w.subclassOf(clsUri, LV2_CORE__Plugin))
            problems.push_back(text(clsUri) + " does not lead to lv2:Plugin by rdfs:subClassOf");
        lint.rule("plug-in class", problems);
    }
    {
        std::vector<std::string> problems;
        const auto names = w.values(uri, kDoapName);
        if (names.empty()) problems.push_back("no doap:name");
        for (const auto& n : names)
            if (!lilv_node_is_string(n.get()) || !*lilv_node_as_string(n.get()))
                problems.push_back("doap:name " + text(n.get()) + " is not a non-empty string");
        lint.rule("doap:name", problems);
    }
    {
        std::vector<std::string> problems;
        const auto licenses = pluginOrProject(w, plugin, kDoapLicense);
        if (licenses.empty()) problems.push_back("no doap:license");
        for (const auto& l : licenses)
            if (!lilv_node_is_uri(l.get()))
                problems.push_back("doap:license " + text(l.get()) + " is not a URI");
        lint.rule("doap:license", problems);
    }
    {
        std::vector<std::string> problems;
        const auto maintainers = pluginOrProject(w, plugin, kDoapMaintainer);
        if (maintainers.empty()) problems.push_back("no doap:maintainer");
        for (const auto& m : maintainers) {
            const auto names = w.values(m.get(), kFoafName);
            if (names.empty() || !lilv_node_is_string(names[0].get()) ||
                !*lilv_node_as_string(names[0].get()))
                problems.push_back("a doap:maintainer has no foaf:name");
        }
        lint.rule("doap:maintainer", problems);
    }
    { // Odd minor versions mark development releases; hosts may hide or refuse them.
        std::vector<std::string> problems;
        const auto minor = w.values(uri, LV2_CORE__minorVersion);
        if (minor.size() != 1 || !lilv_node_is_int(minor[0].get()))
            problems.push_back("want exactly one integer lv2:minorVersion, found " +
                               std::to_string(minor.size()));
        else if (lilv_node_as_int(minor[0].get()) % 2 != 0)
            problems.push_back("lv2:minorVersion " +
                               std::to_string(lilv_node_as_int(minor[0].get())) +
                               " is odd (a development version)");
        lint.rule("lv2:minorVersion even", problems);
    }
    {
        std::vector<std::string> problems;
        const auto micro = w.values(uri, LV2_CORE__microVersion);
        if (micro.size() != 1 || !lilv_node_is_int(micro[0].get()))
            problems.push_back("want exactly one integer lv2:microVersion, found " +
                               std::to_string(micro.size()));
        lint.rule("lv2:microVersion", problems);
    }

    const std::vector<PortFacts> ports = readPorts(w, uri);
    {
        std::vector<std::string> problems;
        std::map<std::string, int> seen;
        for (const auto& p : ports)
            for (const auto& s : p.symbols)
                if (lilv_node_is_string(s.get())) ++seen[lilv_node_as_string(s.get())];
        for (const auto& [symbol, n] : seen)
            if (n > 1)
                problems.push_back("symbol \"" + symbol + "\" used by " + std::to_string(n) +
                                   " ports");
        lint.rule("port symbols unique", problems);
    }
    {
        std::vector<std::string> problems;
        for (const auto& p : ports) {
            if (p.symbols.size() != 1)
                problems.push_back(p.label + " has " + std::to_string(p.symbols.size()) +
                                   " lv2:symbol");
            for (const auto& s : p.symbols)
                if (!lilv_node_is_string(s.get()) ||
                    !validCIdentifier(lilv_node_as_string(s.get())))
                    problems.push_back("symbol " + text(s.get()) + " is not a C identifier");
        }
        lint.rule("port symbols are C identifiers", problems);
    }
    {
        std::vector<std::string> problems;
        std::map<int, int> seen;
        for (const auto& p : ports) {
            if (p.indices.size() != 1)
                problems.push_back(p.label + " has " + std::to_string(p.indices.size()) +
                                   " lv2:index");
            for (const auto& i : p.indices)
                if (lilv_node_is_int(i.get())) ++seen[lilv_node_as_int(i.get())];
        }
        const int n = int(ports.size());
        for (const auto& [index, count] : seen) {
            if (count > 1)
                problems.push_back("index " + std::to_string(index) + " used " +
                                   std::to_string(count) + " times");
            if (index < 0 || index >= n)
                problems.push_back("index " + std::to_string(index) + " outside 0.." +
                                   std::to_string(n - 1));
        }
        for (int i = 0; i < n; ++i)
            if (!seen.count(i)) problems.push_back("no port has index " + std::to_string(i));
        lint.rule("port indices 0..n-1", problems);
    }
    {
        std::vector<std::string> problems;
        for (const auto& p : ports) {
            if (!hasType(p, LV2_CORE__ControlPort)) continue;
            const auto one = [&](const std::vector<Node>& v, const char* what) -> const LilvNode* {
                if (v.size() != 1) {
                    problems.push_back(p.label + " has " + std::to_string(v.size()) + " " + what +
                                       ", wants one");
                    return nullptr;
                }
                if (!isNumber(v[0].get())) {
                    problems.push_back(p.label + ": " + what + " " + text(v[0].get()) +
                                       " is not a number");
                    return nullptr;
                }
                return v[0].get();
            };
            const LilvNode* def = one(p.defaults, "lv2:default");
            const LilvNode* lo = one(p.minimums, "lv2:minimum");
            const LilvNode* hi = one(p.maximums, "lv2:maximum");
            if (!def || !lo || !hi) continue;
            const double d = lilv_node_as_float(def), a = lilv_node_as_float(lo),
                         b = lilv_node_as_float(hi);
            if (!(a <= d && d <= b))
                problems.push_back(p.label + ": default " + text(def) + " is not within [" +
                                   text(lo) + ", " + text(hi) + "]");
        }
        lint.rule("control ranges min <= default <= max", problems);
    }
    {
        std::vector<std::string> problems;
        for (const auto& p : ports) {
            for (const auto* v : {&p.defaults, &p.minimums, &p.maximums})
                for (const auto& n : *v)
                    if (!isNumber(n.get()))
                        problems.push_back(p.label + ": " + text(n.get()) + " is not a number");
            for (const auto& sp : p.scalePoints)
                for (const auto& value : w.values(sp.get(), kRdfValue))
                    if (!isNumber(value.get()))
                        problems.push_back(p.label + ": scale point value " + text(value.get()) +
                                           " is not a number");
        }
        lint.rule("numeric literals", problems);
    }
    {
        std::vector<std::string> problems;
        for (const auto& p : ports)
            for (const auto& i : p.indices)
                if (!lilv_node_is_int(i.get()))
                    problems.push_back(p.label + ": lv2:index " + text(i.get()) +
                                       " is not an integer");
        lint.rule("integer index", problems);
    }
    {
        std::vector<std::string> problems;
        for (const auto& p : ports) {
            if (p.names.empty()) problems.push_back(p.label + " has no lv2:name");
            for (const auto& n : p.names)
                if (!lilv_node_is_string(n.get()))
                    problems.push_back(p.label + ": lv2:name " + text(n.get()) +
                                       " is not a string");
            for (const auto& s : p.symbols)
                if (!lilv_node_is_string(s.get()))
                    problems.push_back(p.label + ": lv2:symbol " + text(s.get()) +
                                       " is not a string");
        }
        lint.rule("string names", problems);
    }

    const Nodes required(lilv_plugin_get_required_features(plugin));
    const Nodes optional(lilv_plugin_get_optional_features(plugin));
    const auto requires_ = [&](const char* feature) {
        const Node f = w.uri(feature);
        return lilv_nodes_contains(required.get(), f.get());
    };
    {
        std::vector<std::string> problems;
        const Node f = w.uri(LV2_CORE__hardRTCapable);
        if (!lilv_nodes_contains(optional.get(), f.get()))
            problems.push_back(requires_(LV2_CORE__hardRTCapable)
                                   ? "lv2:hardRTCapable is required; list it as optional"
                                   : "lv2:hardRTCapable is not listed");
        lint.rule("lv2:hardRTCapable", problems);
    }
    {
        std::vector<std::string> problems;
        const Node f = w.uri(LV2_CORE__inPlaceBroken);
        if (lilv_plugin_has_feature(plugin, f.get()))
            problems.push_back("lv2:inPlaceBroken is declared: hosts must give separate buffers");
        lint.rule("no lv2:inPlaceBroken", problems);
    }
    {
        std::vector<std::string> problems;
        for (const char* f : {LV2_BUF_SIZE__fixedBlockLength, LV2_BUF_SIZE__powerOf2BlockLength,
                              LV2_BUF_SIZE__coarseBlockLength})
            if (requires_(f)) problems.push_back(std::string("requires <") + f + ">");
        lint.rule("no block-length requirements", problems);
    }
    {
        std::vector<std::string> problems;
        for (const auto& o : w.values(uri, LV2_OPTIONS__requiredOption))
            problems.push_back("opts:requiredOption " + text(o.get()));
        lint.rule("no opts:requiredOption", problems);
    }
    {
        std::vector<std::string> others;
        for (const LilvNode* f : items(required.get()))
            if (!lilv_node_is_uri(f) || std::string(lilv_node_as_uri(f)) != LV2_URID__map)
                others.push_back(text(f));
        std::vector<std::string> problems;
        if (!others.empty())
            problems.push_back("required features besides urid:map: " + join(others));
        lint.rule("no required features but urid:map", problems);
    }

    { // What the metadata promises, the instance hands out, and nothing else.
        std::vector<std::string> declaredProblems, unknownProblems;
        const LV2_Feature mapFeature{LV2_URID__map, map};
        const LV2_Feature* features[] = {&mapFeature, nullptr};
        // Loading a damaged binary can kill the validator; check 2 reports what is wrong.
        const elf::Image binary = elf::read(filePath(lilv_plugin_get_library_uri(plugin)));
        LilvInstance* instance =
            binary.ok() ? lilv_plugin_instantiate(plugin, 48000.0, features) : nullptr;
        if (!binary.ok()) {
            declaredProblems.push_back("not loaded: " + binary.error);
            unknownProblems.push_back("not checked: no instance");
        } else if (!instance) {
            declaredProblems.push_back("does not instantiate at 48000 Hz with only urid:map");
            unknownProblems.push_back("not checked: no instance");
        } else {
            const Nodes declared(lilv_plugin_get_extension_data(plugin));
            std::set<std::string> declaredUris;
            for (const LilvNode* e : items(declared.get())) {
                declaredUris.insert(lilv_node_as_uri(e));
                if (!lilv_instance_get_extension_data(instance, lilv_node_as_uri(e)))
                    declaredProblems.push_back("declares " + text(e) +
                                               " but extension_data() returns NULL");
            }
            for (const char* e : kKnownInterfaces)
                if (!declaredUris.count(e) && lilv_instance_get_extension_data(instance, e))
                    declaredProblems.push_back(std::string("returns <") + e +
                                               "> without declaring it as lv2:extensionData");
            if (lilv_instance_get_extension_data(instance, kNoSuchExtension))
                unknownProblems.push_back(std::string("extension_data(\"") + kNoSuchExtension +
                                          "\") is not NULL");
            lilv_instance_free(instance);
        }
        lint.rule("lv2:extensionData returned", declaredProblems);
        lint.rule("unknown extension is NULL", unknownProblems);
    }

    {
        std::vector<std::string> problems;
        for (const auto& p : ports)
            for (const auto& sp : p.scalePoints) {
                const auto labels = w.values(sp.get(), kRdfsLabel);
                if (labels.empty() || !lilv_node_is_string(labels[0].get()) ||
                    !*lilv_node_as_string(labels[0].get()))
                    problems.push_back(p.label + " has a scale point without rdfs:label");
                if (w.values(sp.get(), kRdfValue).empty())
                    problems.push_back(p.label + " has a scale point without rdf:value");
            }
        lint.rule("scale points labelled", problems);
    }
    { // Every group a port or the plug-in names must be described as one.
        std::vector<std::string> problems;
        std::vector<Node> referenced;
        for (const auto& p : ports)
            for (const auto& g : p.groups) referenced.emplace_back(lilv_node_duplicate(g.get()));
        for (const char* link : {LV2_PORT_GROUPS__mainInput, LV2_PORT_GROUPS__mainOutput})
            for (auto& g : w.values(uri, link)) referenced.push_back(std::move(g));
        std::set<std::string> checked;
        for (std::size_t i = 0; i < referenced.size(); ++i) {
            const LilvNode* g = referenced[i].get();
            if (!checked.insert(text(g)).second) continue;
            const auto types = w.values(g, kRdfType);
            if (!std::any_of(types.begin(), types.end(), [&](const Node& t) {
                    return w.subclassOf(t.get(), LV2_PORT_GROUPS__Group);
                }))
                problems.push_back("group " + text(g) + " is not described as a pg:Group");
            if (w.values(g, LV2_CORE__symbol).empty())
                problems.push_back("group " + text(g) + " has no lv2:symbol");
            for (const char* link : {LV2_PORT_GROUPS__source, LV2_PORT_GROUPS__sideChainOf})
                for (auto& next : w.values(g, link)) referenced.push_back(std::move(next));
        }
        lint.rule("port groups exist", problems);
    }
}

// Presets are bundle data: each one names its plug-in and carries a label hosts list it by.
void lintPresets(const Graph& w, const std::set<std::string>& plugins, Lint& lint) {
    const Node presetClass = w.uri(LV2_PRESETS__Preset);
    const Nodes presets = w.find(nullptr, kRdfType, presetClass.get());
    std::vector<std::string> labelProblems, appliesProblems;
    for (const LilvNode* preset : items(presets.get())) {
        lilv_world_load_resource(w.get(), preset);
        const auto labels = w.values(preset, kRdfsLabel);
        if (labels.empty() || !lilv_node_is_string(labels[0].get()) ||
            !*lilv_node_as_string(labels[0].get()))
            labelProblems.push_back(text(preset) + " has no rdfs:label");
        const auto applies = w.values(preset, LV2_CORE__appliesTo);
        if (!std::any_of(applies.begin(), applies.end(), [&](const Node& a) {
                return lilv_node_is_uri(a.get()) && plugins.count(lilv_node_as_uri(a.get()));
            }))
            appliesProblems.push_back(text(preset) + " has no lv2:appliesTo naming the plug-in");
    }
    lint.rule("presets labelled", labelProblems);
    lint.rule("presets apply to the plug-in", appliesProblems);
}

// The descriptor the UI binary gives for `uiUri`, asked without instantiating the UI; returns
// whether it hands out the idle interface, or an error.
bool uiReturnsIdle(const std::string& binary, const std::string& uiUri, std::string& error) {
    void* lib = dlopen(binary.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!lib) {
        error = std::string("cannot load: ") + dlerror();
        return false;
    }
    using DescriptorFn = const LV2UI_Descriptor* (*)(uint32_t);
    const auto fn = reinterpret_cast<DescriptorFn>(dlsym(lib, "lv2ui_descriptor"));
    if (!fn) error = "the binary has no lv2ui_descriptor to ask";
    bool idle = false;
    bool found = false;
    for (uint32_t i = 0; fn && !found; ++i) {
        const LV2UI_Descriptor* d = fn(i);
        if (!d) break;
        if (d->URI && uiUri == d->URI) {
            found = true;
            idle = d->extension_data && d->extension_data(LV2_UI__idleInterface);
        }
    }
    if (fn && !found) error = "lv2ui_descriptor() lists no descriptor for <" + uiUri + ">";
    dlclose(lib);
    return idle;
}

int lintUis(const Graph& w, const LilvPlugin* plugin, Lint& lint) {
    const std::unique_ptr<LilvUIs, decltype(&lilv_uis_free)> uis(lilv_plugin_get_uis(plugin),
                                                                 lilv_uis_free);
    int count = 0;
    LILV_FOREACH(uis, i, uis.get()) {
        ++count;
        const LilvUI* ui = lilv_uis_get(uis.get(), i);
        const LilvNode* uiUri = lilv_ui_get_uri(ui);
        lilv_world_load_resource(w.get(), uiUri);
        const std::string name = text(uiUri);
        const std::string binary = filePath(lilv_ui_get_binary_uri(ui));
        const elf::Image image = elf::read(binary);
        {
            std::vector<std::string> problems;
            const auto exported = elf::exportedNames(image);
            if (!image.ok())
                problems.push_back(name + ": " + image.error);
            else if (std::find(exported.begin(), exported.end(), "lv2ui_descriptor") ==
                     exported.end())
                problems.push_back(name + ": " + binary + " does not export lv2ui_descriptor");
            lint.rule("UI exports lv2ui_descriptor", problems);
        }
        {
            std::vector<std::string> problems;
            const bool declared = w.ask(uiUri, LV2_CORE__extensionData, LV2_UI__idleInterface);
            std::string error = image.ok() ? "" : "not loaded: " + image.error;
            const bool returned =
                image.ok() && uiReturnsIdle(binary, lilv_node_as_uri(uiUri), error);
            if (!error.empty())
                problems.push_back(name + ": " + error);
            else if (declared != returned)
                problems.push_back(name + (declared
                                               ? " declares ui:idleInterface but does not return it"
                                               : " returns ui:idleInterface without declaring it"));
            lint.rule("UI idle interface declared iff returned", problems);
        }
        {
            std::vector<std::string> problems;
            if (w.ask(uiUri, LV2_CORE__requiredFeature, LV2_UI__resize))
                problems.push_back(name + " requires ui:resize");
            if (w.ask(uiUri, LV2_CORE__extensionData, LV2_UI__resize))
                problems.push_back(name + " provides ui:resize");
            lint.rule("UI has no ui:resize", problems);
        }
        {
            std::vector<std::string> problems;
            if (w.ask(uiUri, LV2_CORE__requiredFeature, LV2_INSTANCE_ACCESS_URI))
                problems.push_back(name + " requires instance-access");
            if (w.ask(uiUri, LV2_CORE__requiredFeature, LV2_DATA_ACCESS_URI))
                problems.push_back(name + " requires data-access");
            lint.rule("UI needs no instance or data access", problems);
        }
    }
    return count;
}

} // namespace

Result checkMetadata(const Context& ctx) {
    Result result;
    const ValidateFigure validated = runLv2Validate(ctx.bundle, result);

    Graph world;
    Lint lint(result);
    int uiCount = 0;
    if (!world.load(ctx.bundle)) {
        result.fail("no bundle folder at " + ctx.bundle);
    } else {
        const LilvPlugins* plugins = lilv_world_get_all_plugins(world.get());
        std::set<std::string> uris;
        std::vector<const LilvPlugin*> own;
        LILV_FOREACH(plugins, i, plugins) {
            const LilvPlugin* plugin = lilv_plugins_get(plugins, i);
            if (!world.ownPlugin(plugin)) continue;
            own.push_back(plugin);
            uris.insert(lilv_node_as_uri(lilv_plugin_get_uri(plugin)));
        }
        if (uris.empty()) result.fail("lilv finds no plug-in in " + ctx.bundle);
        // Without the core vocabulary every class rule would fail for the wrong reason.
        if (lilv_plugin_classes_size(lilv_world_get_plugin_classes(world.get())) < 2)
            result.fail("the LV2 vocabularies (Debian package lv2-dev) were not found, so plug-in "
                        "classes are unknown");
        for (const LilvPlugin* plugin : own) {
            lintPlugin(world, plugin, &World::get(ctx.bundle).map, lint);
            uiCount += lintUis(world, plugin, lint);
        }
        lintPresets(world, uris, lint);
    }

    std::ostringstream figure;
    figure << "lv2_validate: " << validated.reports << " errors in " << validated.files
           << " files (" << validated.restrictions << " restrictions); ";
    if (lint.held() == lint.total())
        figure << lint.total() << " lint rules held; ";
    else
        figure << lint.held() << " of " << lint.total() << " lint rules held; ";
    if (uiCount == 0)
        figure << "no UI declared";
    else
        figure << uiCount << (uiCount == 1 ? " UI" : " UIs") << " checked";
    result.figure = figure.str();
    return result;
}

} // namespace sr::validate
