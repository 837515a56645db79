// Shared by the tests of the library: a context over a fake host, one tree, and the table of
// operations that the sweeps run through. A further operation is a further row, with its faults in
// faults.txt, its calls in transcripts.txt and its further contract in cases.txt.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "fake_host.h"
#include "keyview/if/prsr.h"

// cluster.txt: two databases, a storage manager entry and a node's applications; the first database
// has every key there is, three instances and two services.
extern const std::string CLUSTER;

inline const std::string ONE_DATABASE = "DATABASE.DATABASES\n sales=Sales\n";

// A fake host with a live context, which ends with it. The events begin after its start.
struct test_host : fake_host {
    explicit test_host(const std::string &tree, bool with_trace = true);
    ~test_host();

    void store(const char *key, const std::string &bytes);  // key as for expanded

    prsr_ctx *ctx = nullptr;
};

// A caller and its arguments.
struct caller {
    caller(test_host &on) : host(on), ctx(on.ctx) {}  // NOLINT: a host is a caller by default

    test_host &host;
    prsr_ctx *ctx;
    const char *db = "SALES";
    const char *inst = "Sales1";
    const char *srv = "Web.SHOP";
    const char *node = "NODE22";
    const char *scope = "NODE1";
    const char *stg = "Mgr1";
    int32_t value = 0;      // the value to set
    uint32_t bufsize = 80;  // of the buffer for a name
};

// The code of a call and all it handed out, as text; a record's fields are named by their keys.
// "untouched" and "77" are the values before the call.
using fields = std::map<std::string, std::string>;

struct outcome {
    int32_t rc;
    fields out;
};

struct operation {
    const char *name;
    outcome (*run)(const caller &by);  // releases its results
    fields untouched;                  // outputs for a bad context
};

extern const std::vector<operation> OPERATIONS;

extern const std::map<std::string, int32_t> CODES;  // by their names in the files beside the tests

// The operation of that name, run.
outcome run(const std::string &name, const caller &by);

// The keys of CLUSTER written out: $ROOT; $D for the database sales; $I1 to $I3 for its instances;
// $S for its service web*shop, $L for that key below $D; $T1 to $T3 for the instances of the
// service; $E for the storage manager entry; $N for the node. $EMPTY is the effect of a service
// without instances.
std::string expanded(std::string text);

// A file beside the tests, expanded: headings with the indented lines below each, in order.
std::vector<std::pair<std::string, std::vector<std::string>>> sections(const char *file);

// The lines that report a failed registry call ("open", "get", "set" or "enum"); "!" behind the
// function: by the odd name kvtc_enum_key.
std::vector<std::string> report(const std::string &function, const std::string &call,
                                const std::string &path, int32_t code);

std::string joined(const std::vector<std::string> &parts);
