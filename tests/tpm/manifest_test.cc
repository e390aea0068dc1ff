// The manifest as anybody may have left it.
#include <gmock/gmock.h>

#include "platform/tpm/manifest.h"
#include "tests/tpm/software_tpm.h"

namespace {

class manifest_test : public ::testing::Test {
protected:
    kov_status load(const std::string &text)
    {
        const std::string path = directory_.path() + "/trust_anchor.json";
        write_file(path, text);
        const kov_status status = manifest_load(path, loaded_);
        if (status != KOV_SUCCESS) {
            EXPECT_TRUE(loaded_.keys.empty() && loaded_.objects.empty() && loaded_.identifiers.empty());
        }
        return status;
    }

    temporary_directory directory_;
    manifest loaded_;
};

std::string identifier(const std::string &place)
{
    std::string text = R"({"place": ")" + place + '"';
    for (const tpm_algorithm &algorithm : tpm_algorithms)
        text += std::string(", \"") + algorithm.name + "\": \"" +
                std::string(std::size_t{2} * algorithm.digest_size, '7') + '"';
    return text + "}";
}

struct parts {
    std::string version = "1";
    std::string keys = R"({"RSA_AIK_KEY": {"handle": "0x81014101", "name": "000b01"}})";
    std::string objects = R"({"A": {"file": "folder/a.der"}, "B": {"nv_index": "0x01c00002"}})";
    std::string identifiers = "[" + identifier("cpu/0") + "]";
};

std::string text_of(const parts &of)
{
    return R"({"version": )" + of.version + R"(, "node": "n", "demonstration_ca": true, "keys": )" + of.keys +
           ", \"objects\": " + of.objects + ", \"identifiers\": " + of.identifiers + "}";
}

TEST_F(manifest_test, WhatIsWrittenIsReadAgain)
{
    ASSERT_EQ(load(text_of({})), KOV_SUCCESS);
    const manifest first = loaded_;
    ASSERT_EQ(load(manifest_text(first)), KOV_SUCCESS);
    EXPECT_EQ(manifest_text(loaded_), manifest_text(first));
    EXPECT_EQ(manifest_find_key(loaded_, "RSA_AIK_KEY")->handle, 0x81014101u);
    EXPECT_EQ(manifest_find_object(loaded_, "A")->file, "folder/a.der");
    EXPECT_EQ(manifest_find_object(loaded_, "B")->nv_index, 0x01c00002u);
    EXPECT_EQ(manifest_find_object(loaded_, "b"), nullptr);
    EXPECT_EQ(loaded_.identifiers.at(0).digests[3].back(), 0x77);
    EXPECT_EQ(manifest_load(directory_.path() + "/none", loaded_), KOV_ERR_NOT_PROVISIONED);
    EXPECT_EQ(manifest_load(directory_.path(), loaded_), KOV_ERR_MANIFEST);
}

TEST_F(manifest_test, EveryPartThatIsNotAsItMustBeIsRefused)
{
    const parts good;
    const parts wrong[] = {
        {.version = "2"},
        {.version = "\"1\""},
        {.version = "1e400"},
        {.keys = "[]"},
        {.keys = "null"},
        {.keys = R"({"K": 5})"},
        {.keys = R"({"K": {"handle": 2164342017, "name": "00"}})"},
        {.keys = R"({"K": {"handle": "0x01014101", "name": "00"}})"}, // no persistent handle
        {.keys = R"({"K": {"handle": "0x181014101", "name": "00"}})"},
        {.keys = R"({"K": {"handle": "81014101", "name": "00"}})"},
        {.keys = R"({"K": {"handle": "0x81014101 ", "name": "00"}})"},
        {.keys = R"({"K": {"handle": "0x81014101", "name": "0"}})"},
        {.keys = R"({"K": {"handle": "0x81014101", "name": "0g"}})"},
        {.objects = R"({"A": {}})"},
        {.objects = R"({"": {"file": "a"}})"},
        {.objects = R"({"A": {"file": ""}})"},
        {.objects = R"({"A": {"file": "/etc/shadow"}})"},
        {.objects = R"({"A": {"file": "../a"}})"},
        {.objects = R"({"A": {"file": "a/../../b"}})"},
        {.objects = R"({"A": {"file": ".."}})"},
        {.objects = R"({"A": {"file": "a\u0000b"}})"},
        {.objects = R"({"A": {"file": "a", "nv_index": "0x01c00002"}})"},
        {.objects = R"({"A": {"nv_index": "0x81014101"}})"},
        {.identifiers = "{}"},
        {.identifiers = "[1]"},
        {.identifiers = R"([{"place": "cpu/0"}])"},
        {.identifiers = "[" + identifier("a") + "," + identifier("a") + "]"},
    };
    for (const parts &one : wrong)
        EXPECT_EQ(load(text_of(one)), KOV_ERR_MANIFEST) << text_of(one);
    std::string many = "[" + identifier("0");
    for (std::size_t i = 1; i <= MANIFEST_MAX_IDENTIFIERS; ++i)
        many += "," + identifier(std::to_string(i));
    EXPECT_EQ(load(text_of({.identifiers = many + "]"})), KOV_ERR_MANIFEST);
    EXPECT_EQ(load(text_of(good) + std::string(MANIFEST_MAX_BYTES, ' ')), KOV_ERR_MANIFEST);
}

TEST_F(manifest_test, ATruncatedManifestIsRefusedAtEveryLength)
{
    const std::string whole = text_of({});
    for (std::size_t length = 0; length < whole.size(); ++length)
        ASSERT_EQ(load(whole.substr(0, length)), KOV_ERR_MANIFEST) << length;
    for (std::size_t at = 0; at < whole.size(); ++at) {
        std::string wrong = whole;
        wrong[at] = static_cast<char>(0xFF);
        load(wrong); // a letter of a name may be another one; nothing worse
    }
    EXPECT_EQ(load(std::string(100'000, '[')), KOV_ERR_MANIFEST);
    EXPECT_EQ(load(std::string(1, '\0') + whole), KOV_ERR_MANIFEST);
}

} // namespace
