// ethbrg: runs the driver for real. Every subcommand has --help; errors a
// user can make end in one line on standard error and exit status 2.
#include "demo.h"
#include "host.h"
#include "info.h"
#include "tracering.h"

#include <ethsim/profile.h>

#include <CLI/CLI.hpp>

#include <cstdio>
#include <dirent.h>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>

namespace ethbrg {
int RunCheck(const std::string& capture, int inEndpoint, int outEndpoint, bool quiet);
struct BridgeOptions;
void AddBridgeCommands(CLI::App& app, CommonOptions& common, std::function<int()>* run);
}  // namespace ethbrg

namespace {

using namespace ethbrg;

void AddCommon(CLI::App* cmd, CommonOptions& c, bool traffic)
{
    cmd->add_option("--profile", c.profile, "device profile: a name from profiles/ or a JSON file");
    cmd->add_option("--param", c.params, "adapter registry parameter Name=Value (repeatable; see info --params)");
    cmd->add_option("--trace-mask", c.traceMask, "driver trace mask (0x1 errors, 0x2 warnings, 0x4 info, ...)");
    cmd->add_option("--usb-capture", c.usbCapture, "write every URB as a usbmon pcap");
    cmd->add_option("--usb", c.usb, "a real USB device through libusb instead of the simulated one: VID:PID "
                                    "(hex, as lsusb -d) or BUS:ADDR (decimal, as lsusb lists them)");
    if (traffic) {
        cmd->add_option("--trace-dump", c.traceDump, "write the driver's trace ring to FILE at exit");
        cmd->add_option("--pcap", c.pcap, "write the frames at the adapter's upper edge as an Ethernet pcap");
    }
}

std::vector<uint8_t> ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) throw UsageError(path + ": cannot be read");
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

int ProfileList()
{
    std::set<std::string> names;
    for (const std::string& dir : ProfileDirectories()) {
        if (DIR* d = opendir(dir.c_str())) {
            while (dirent* e = readdir(d)) {
                std::string n = e->d_name;
                if (n.size() > 5 && n.substr(n.size() - 5) == ".json") names.insert(n.substr(0, n.size() - 5));
            }
            closedir(d);
        }
    }
    for (const std::string& n : names) {
        ethsim::DeviceProfile p = ResolveProfile(n);
        printf("%-22s %s\n", n.c_str(), p.product.c_str());
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"ethbrg: the USB CDC NCM host adapter driver, run on the stand-in with a simulated NCM device"};
    app.require_subcommand(1);
    std::function<int()> run;

    DemoOptions demo;
    CLI::App* demoCmd = app.add_subcommand("demo", "bring the adapter up, ping the device side, run numbered frames "
                                                   "both ways, print a summary");
    AddCommon(demoCmd, demo.common, true);
    demoCmd->add_option("--seconds", demo.seconds, "traffic duration (default 5)");
    demoCmd->add_option("--frame-size", demo.frameSize, "\"mixed\" (default) or a frame length 60..1514");
    demoCmd->add_option("--json", demo.json, "write the summary as JSON to FILE (\"-\": standard output)");
    demoCmd->add_flag("--quiet", demo.quiet, "no live status line");
    demoCmd->callback([&] { run = [&] { return RunDemo(demo); }; });

    InfoOptions info;
    CLI::App* infoCmd = app.add_subcommand("info", "bring the adapter up and print every supported OID, decoded");
    AddCommon(infoCmd, info.common, false);
    infoCmd->add_flag("--params", info.params, "list the adapter parameters with defaults and ranges");
    infoCmd->callback([&] { run = [&] { return RunInfo(info); }; });

    std::string capture;
    int inEp = -1, outEp = -1;
    bool checkQuiet = false;
    CLI::App* checkCmd = app.add_subcommand("check", "check every NTB of a usbmon capture both ways");
    checkCmd->add_option("CAPTURE", capture, "usbmon pcap (Linux usbmon, or --usb-capture of this program)")->required();
    checkCmd->add_option("--in", inEp, "bulk IN endpoint address (default: from the descriptors in the capture)");
    checkCmd->add_option("--out", outEp, "bulk OUT endpoint address (default: from the descriptors)");
    checkCmd->add_flag("--quiet", checkQuiet, "only the summary");
    checkCmd->callback([&] { run = [&] { return RunCheck(capture, inEp, outEp, checkQuiet); }; });

    std::string traceFile;
    CLI::App* traceCmd = app.add_subcommand("trace", "work with dumps of the driver's trace ring");
    traceCmd->require_subcommand(1);
    CLI::App* decodeCmd = traceCmd->add_subcommand("decode", "print a trace ring dump (--trace-dump) as text");
    decodeCmd->add_option("FILE", traceFile, "the dump")->required();
    decodeCmd->callback([&] {
        run = [&] {
            std::string text, error;
            if (!DecodeTraceDump(ReadFile(traceFile), &text, &error)) throw UsageError(traceFile + ": " + error);
            fwrite(text.data(), 1, text.size(), stdout);
            return 0;
        };
    });

    std::string profileFile;
    CLI::App* profileCmd = app.add_subcommand("profile", "device profiles of the simulated NCM function");
    profileCmd->require_subcommand(1);
    profileCmd->add_subcommand("template", "print the complete profile with every field at its default")
        ->callback([&] { run = [] { printf("%s\n", ethsim::ProfileToJson(ethsim::DeviceProfile()).c_str()); return 0; }; });
    CLI::App* profileCheck = profileCmd->add_subcommand("check", "validate a profile file");
    profileCheck->add_option("FILE", profileFile, "profile (JSON) or a name from profiles/")->required();
    profileCheck->callback([&] {
        run = [&] {
            ethsim::DeviceProfile p = ResolveProfile(profileFile);
            printf("%s: valid (%s, %s speed, NTB formats 0x%x, %u/%u-byte NTBs in/out)\n", profileFile.c_str(),
                   p.product.c_str(), p.speed == kplat::UsbSpeed::Super ? "super" : p.speed == kplat::UsbSpeed::High ? "high" : "full/low",
                   p.ntb.bmNtbFormatsSupported, p.ntb.dwNtbInMaxSize, p.ntb.dwNtbOutMaxSize);
            return 0;
        };
    });
    profileCmd->add_subcommand("list", "list the profiles shipped in profiles/")->callback([&] { run = ProfileList; });

    CommonOptions bridgeCommon;
    AddBridgeCommands(app, bridgeCommon, &run);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }
    try {
        return run ? run() : 2;
    } catch (const UsageError& e) {
        fprintf(stderr, "ethbrg: %s\n", e.what());
        return 2;
    } catch (const std::exception& e) {
        fprintf(stderr, "ethbrg: %s\n", e.what());
        return 2;
    }
}
