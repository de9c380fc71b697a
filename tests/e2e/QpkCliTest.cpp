// The qpk tool as a developer uses it: pack, sign, verify, info, and the exit
// status and message of every kind of failure.
#include <gtest/gtest.h>

#include <string>

#include "unit/sign/SignFixture.h"

using testsupport::readFile;
using testsupport::writeFile;

namespace {

class QpkCli : public signtest::SignFixture {
protected:
    struct Outcome {
        int status;
        std::string out;
        std::string err;
    };

    Outcome qpk(const std::string& args) {
        const std::string errPath = work("stderr.txt");
        const auto result = testsupport::runCommand(testsupport::buildDir() + "/apps/qpk " + args + " 2>" + errPath);
        return {result.exitStatus, result.output, readFile(errPath)};
    }

    std::string makeTree() {
        const std::string tree = work("tree");
        writeFile(tree + "/manifest", "plugin_id = \"demo.plugin\";\nversion = \"1.4.2\";\nsupported_rom = \"x\";\n");
        writeFile(tree + "/bin/demo", "#!/bin/sh\necho demo\n");
        return tree;
    }

    std::string signerArgs(const std::string& signer) const {
        return "--key " + pki(signer + ".key") + " --cert " + pki(signer + ".pem");
    }
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

TEST_F(QpkCli, PackSignVerifyAndInfo) {
    const std::string tree = makeTree();
    ASSERT_EQ(0, qpk("pack " + tree + " " + work("demo.zip")).status);
    ASSERT_EQ(0,
              qpk("sign " + signerArgs("official") + " --type 1 " + work("demo.zip") + " " + work("demo.qpk")).status);

    const Outcome verified = qpk("verify --ca " + ca() + " " + work("demo.qpk") + " --payload " + work("out.zip"));
    EXPECT_EQ(0, verified.status) << verified.err;
    EXPECT_TRUE(contains(verified.out, "Official Signer")) << verified.out;
    EXPECT_EQ(readFile(work("demo.zip")), readFile(work("out.zip")));
    EXPECT_EQ(0, qpk("verify --ca " + ca() + " " + work("demo.qpk")).status);

    const Outcome info = qpk("info " + work("demo.qpk"));
    ASSERT_EQ(0, info.status) << info.err;
    EXPECT_TRUE(contains(info.out, "sign type: 1 (official)")) << info.out;
    EXPECT_TRUE(contains(info.out, "signer: CN = Official Signer")) << info.out;
    EXPECT_TRUE(contains(info.out, "payload size: " + std::to_string(readFile(work("demo.zip")).size()))) << info.out;
    EXPECT_TRUE(contains(info.out, "plugin_id: demo.plugin")) << info.out;
    EXPECT_TRUE(contains(info.out, "version: 1.4.2")) << info.out;

    ASSERT_EQ(0,
              qpk("sign " + signerArgs("developer") + " --type 0 " + work("demo.zip") + " " + work("dev.qpk")).status);
    EXPECT_TRUE(contains(qpk("info " + work("dev.qpk")).out, "sign type: 0 (developer)"));
}

TEST_F(QpkCli, FailuresExitWithStatusOneAndSayWhy) {
    const std::string tree = makeTree();
    ASSERT_EQ(0, qpk("pack " + tree + " " + work("demo.zip")).status);
    writeFile(work("empty-tree/readme"), "no manifest here");
    ASSERT_EQ(0, qpk("sign " + signerArgs("expired") + " --type 0 " + work("demo.zip") + " " + work("old.qpk")).status);

    const std::vector<std::string> failing = {
        "pack " + work("empty-tree") + " " + work("x.zip"),
        "sign --key " + pki("developer.key") + " --cert " + pki("official.pem") + " --type 1 " + work("demo.zip") +
            " " + work("x.qpk"),
        "sign " + signerArgs("official") + " --type 1 " + work("missing.zip") + " " + work("x.qpk"),
        "verify --ca " + pki("other-ca.pem") + " " + work("old.qpk") + " --payload " + work("x.zip"),
        "verify --ca " + ca() + " " + work("old.qpk") + " --payload " + work("x.zip"),
        "verify --ca " + ca() + " " + work("demo.zip") + " --payload " + work("x.zip"),
        "info " + work("demo.zip"),
    };
    for (const auto& args : failing) {
        const Outcome outcome = qpk(args);
        EXPECT_EQ(1, outcome.status) << args;
        EXPECT_TRUE(contains(outcome.err, "qpk: ")) << args;
    }
    EXPECT_TRUE(contains(qpk("verify --ca " + ca() + " " + work("old.qpk")).err, "expired"));
    EXPECT_FALSE(signtest::exists(work("x.zip")));
    EXPECT_FALSE(signtest::exists(work("x.qpk")));
}

TEST_F(QpkCli, BadUsageExitsWithStatusTwo) {
    for (const std::string args :
         {"", "unpack x", "pack onlyone", "sign --key k --cert c in out", "sign --key k --cert c --type 5 in out",
          "verify x.qpk", "verify --ca", "info a b", "info --bogus x a"}) {
        const Outcome outcome = qpk(args);
        EXPECT_EQ(2, outcome.status) << args;
        EXPECT_TRUE(contains(outcome.err, "usage: qpk")) << args;
    }
}
