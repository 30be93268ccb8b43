// app_ctl of a program start of an unknown file in lockdown, with 10, 100,
// 1,000 and 10,000 trust rules in the store, none of which matches it: every
// rule kind the decision consults (exclude, block by target, trusted
// execution) is present.  Each figure is against the 10-rule figure.
#include "BenchUtil.h"

namespace {

constexpr uint32_t kLockdown = 0x01;

// Rules as an administrator writes them: trusted updaters and trusted
// execution by process and folder, exclusions and blocks by folder, a few by
// signer.
std::string RulesDocument(int count) {
    std::string doc = "{\"Trustrules\": [";
    for (int i = 0; i < count; ++i) {
        const int type = i % 8 == 0 ? 3 : i % 8 == 1 ? 4 : i % 8 == 2 ? 1 : 2;
        const std::string vendor = "vendor" + std::to_string(i);
        doc += i ? "," : "";
        doc += "{\"trustType\": " + std::to_string(type);
        if (i % 5 == 4) {
            doc += ", \"signerName\": \"Signer " + vendor + "\"";
        } else {
            doc += ", \"processName\": \"/opt/" + vendor + "/bin/updater\"";
            doc += ", \"paths\": \"/opt/" + vendor + "/;/var/lib/" + vendor + "/**/*.bin\"";
        }
        doc += "}";
    }
    return doc + "]}";
}

const std::string& Db(int rules) {
    static std::map<int, std::string> paths;
    std::string& path = paths[rules];
    if (path.empty()) {
        path = zelkbench::ScratchDir("trust-rules") + "/ac-" + std::to_string(rules) + ".db";
        std::filesystem::remove(path);
        zelkbench::UseDatabase(path, kLockdown);
        const std::string doc = RulesDocument(rules);
        if (set_ruleset_buffer(false, doc.c_str(), "bench-TrustRules") != ZELK_STATUS_SUCCESS) {
            fprintf(stderr, "trust rule import failed\n");
            std::exit(3);
        }
    }
    return path;
}

void BM_AppCtl_UnknownLockdown(benchmark::State& state) {
    const int rules = static_cast<int>(state.range(0));
    zelkbench::UseDatabase(Db(rules), kLockdown);
    static zelkbench::HostEvent e = [] {
        zelkbench::HostEvent ev;
        ev.target = "/home/alice/downloads/unknown-tool";
        zelkbench::RowDigest(~0ULL, ev.sha256);
        return ev;
    }();
    ac_wrapper_response_s response;
    for (auto _ : state) {
        app_ctl(e.Raw(ZELK_EVENT_EXEC_PRE, 12345), &response);
        if (response.action != ZELK_ACTION_BLOCK) {
            state.SkipWithError("unknown file not blocked");
            break;
        }
    }
}

BENCHMARK(BM_AppCtl_UnknownLockdown)->Arg(10)->Arg(100)->Arg(1000)->Arg(10000);

}  // namespace

int main(int argc, char** argv) {
    for (int rules : {10, 100, 1000, 10000}) {
        Db(rules);
    }
    std::vector<zelkbench::Ratio> ratios;
    for (int rules : {100, 1000, 10000}) {
        ratios.push_back(
            {"unknown file in lockdown, " + std::to_string(rules) + " / 10 trust rules",
             "BM_AppCtl_UnknownLockdown/" + std::to_string(rules), "BM_AppCtl_UnknownLockdown/10",
             "", 0, false});
    }
    return zelkbench::RunWithRatios(argc, argv, std::move(ratios));
}
