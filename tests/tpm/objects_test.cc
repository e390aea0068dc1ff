// Named objects, and the board's identifiers with their binding to PCR 15.
#include <filesystem>
#include <functional>

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

#include "platform/tpm/manifest.h"
#include "platform/tpm/reference_list.h"
#include "tests/tpm/client_fixture.h"

namespace {

class objects_test : public provisioned_fixture {
protected:
    manifest read_manifest() const
    {
        manifest read;
        EXPECT_EQ(manifest_load(tpm_.manifest(), read), KOV_SUCCESS);
        return read;
    }

    void write_manifest(const manifest &written) const
    {
        write_file(tpm_.manifest(), manifest_text(written));
    }

    void add_object(const manifest_object &object) const
    {
        manifest changed = read_manifest();
        changed.objects.push_back(object);
        write_manifest(changed);
    }
};

TEST_F(objects_test, ObjectsAreReadWholeOrAStatus)
{
    add_object({"EMPTY", "empty", 0});
    add_object({"LARGEST", "largest", 0});
    add_object({"TOO_LARGE", "too_large", 0});
    add_object({"GONE", "gone", 0});
    add_object({"FOLDER", ".", 0});
    write_file(tpm_.node() + "/empty", "");
    write_file(tpm_.node() + "/largest", std::string(KOV_MAX_OBJECT_BYTES, 'x'));
    write_file(tpm_.node() + "/too_large", std::string(KOV_MAX_OBJECT_BYTES + 1, 'x'));
    const session_owner session = login();
    const manifest node = read_manifest();
    for (const char *name : {"RSA_VOXACRT", "RSA_SCHAIN", "RSA_AIK_CRT", "RSA_AIK_CHAIN"}) {
        const handed_out object = session.object(name);
        EXPECT_EQ(object.bytes(), file_bytes(tpm_.node() + "/" + manifest_find_object(node, name)->file))
            << name;
        EXPECT_GT(object.length, 256u);
    }
    const handed_out empty = session.object("EMPTY");
    EXPECT_EQ(empty.status, KOV_SUCCESS);
    EXPECT_EQ(empty.data, nullptr);
    EXPECT_EQ(session.object("LARGEST").length, KOV_MAX_OBJECT_BYTES);
    EXPECT_EQ(session.object("TOO_LARGE").status, KOV_ERR_OBJECT_SIZE);
    EXPECT_EQ(session.object("FOLDER").status, KOV_ERR_ERRNO | EINVAL);
    for (const char *name : {"GONE", "", "UNKNOWN", "rsa_voxacrt"})
        EXPECT_EQ(session.object(name).status, KOV_ERR_NO_OBJECT) << name;
}

TEST_F(objects_test, AnObjectMayBeInAnNvIndex)
{
    constexpr std::uint32_t index = 0x01C00002;
    std::vector<std::uint8_t> content(1300); // more than one read of it
    for (std::size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<std::uint8_t>(i * 3);
    release();
    {
        const auto tpm = connect_to(tpm_);
        TPM2B_NV_PUBLIC area{};
        area.nvPublic = {index,
                         TPM2_ALG_SHA256,
                         TPMA_NV_OWNERWRITE | TPMA_NV_OWNERREAD | TPMA_NV_NO_DA,
                         {},
                         static_cast<UINT16>(content.size())};
        TPM2B_AUTH no_auth{};
        ESYS_TR nv = ESYS_TR_NONE;
        ASSERT_EQ(Esys_NV_DefineSpace(tpm->esys, ESYS_TR_RH_OWNER, ESYS_TR_PASSWORD, ESYS_TR_NONE,
                                      ESYS_TR_NONE, &no_auth, &area, &nv),
                  TSS2_RC_SUCCESS);
        for (std::size_t offset = 0; offset < content.size(); offset += 650) {
            TPM2B_MAX_NV_BUFFER piece{650, {}};
            std::copy_n(content.begin() + static_cast<std::ptrdiff_t>(offset), 650, piece.buffer);
            ASSERT_EQ(Esys_NV_Write(tpm->esys, ESYS_TR_RH_OWNER, nv, ESYS_TR_PASSWORD, ESYS_TR_NONE,
                                    ESYS_TR_NONE, &piece, static_cast<UINT16>(offset)),
                      TSS2_RC_SUCCESS);
        }
    }
    add_object({"VENDOR", {}, index});
    add_object({"VENDOR_GONE", {}, index + 1});
    use(tpm_);
    const session_owner session = login();
    EXPECT_EQ(session.object("VENDOR").bytes(), content);
    EXPECT_THAT(kov_status_string(session.object("VENDOR_GONE").status), testing::HasSubstr("handle"));
}

TEST_F(objects_test, AManifestChangedOrDamagedIsSeenAtTheNextLogin)
{
    ASSERT_EQ(login().sign("RSA_VOXAKEY", {1}).status, KOV_SUCCESS);
    manifest without = read_manifest();
    std::erase_if(without.keys, [](const manifest_key &key) { return key.name == "RSA_VOXAKEY"; });
    const std::string whole = file_text(tpm_.manifest());
    write_manifest(without);
    EXPECT_EQ(login().sign("RSA_VOXAKEY", {1}).status, KOV_ERR_NO_KEY);
    write_file(tpm_.manifest(), whole.substr(0, whole.size() / 2));
    const session_owner session = login();
    ASSERT_EQ(session.login_status, KOV_SUCCESS);
    EXPECT_EQ(session.sign("RSA_VOXAKEY", {1}).status, KOV_ERR_MANIFEST);
    EXPECT_EQ(session.object("RSA_AIK_CRT").status, KOV_ERR_MANIFEST);
    EXPECT_EQ(session.uids(KOV_UID_BOARD, 2).digests.status, KOV_ERR_MANIFEST);
    EXPECT_EQ(session.pcr(2, 0).status, KOV_SUCCESS);
    write_file(tpm_.manifest(), whole);
    EXPECT_EQ(login().sign("RSA_VOXAKEY", {1}).status, KOV_SUCCESS);
}

// A login while no file can be opened.
kov_status sign_without_descriptors(const std::function<kov_status()> &sign)
{
    const unique_fd lowest(dup(0)); // none is free below this one
    rlimit former{};
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &former), 0);
    const rlimit none{static_cast<rlim_t>(lowest.get()), former.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const scope_exit restore([&former] { setrlimit(RLIMIT_NOFILE, &former); });
    return sign();
}

TEST_F(objects_test, AManifestThatCannotBeReadNowIsReadAtTheNextLogin)
{
    const auto sign = [this] { return login().sign("RSA_VOXAKEY", {1}).status; };
    ASSERT_EQ(sign(), KOV_SUCCESS);
    const std::string whole = file_text(tpm_.manifest());
    write_file(tpm_.manifest(), whole + "\n");
    EXPECT_EQ(sign_without_descriptors(sign), KOV_ERR_ERRNO | EMFILE);
    EXPECT_EQ(sign(), KOV_SUCCESS) << "of the same file";
    write_file(tpm_.manifest(), whole);
    EXPECT_EQ(sign_without_descriptors(sign), KOV_ERR_ERRNO | EMFILE);
    std::filesystem::remove(tpm_.manifest());
    EXPECT_EQ(sign(), KOV_ERR_NOT_PROVISIONED);
}

// What a verifier does: PCR 15 from the type 0 digests of the answer.
std::vector<std::uint8_t> expected_pcr(const tpm_algorithm &bank, const std::vector<std::uint8_t> &digests)
{
    const std::vector<std::uint8_t> zeros(bank.digest_size);
    digest_value extension;
    digest_value value;
    EXPECT_TRUE(digest_of(bank, {digests}, extension));
    EXPECT_TRUE(digest_of(bank, {zeros, std::span(extension).first(bank.digest_size)}, value));
    return {value.begin(), value.begin() + bank.digest_size};
}

TEST_F(objects_test, TheReferenceListIsInPcr15OnceABoot)
{
    for (int boot = 0; boot < 2; ++boot) {
        for (const tpm_algorithm &bank : tpm_algorithms) {
            const session_owner session = login();
            const uid_result reference = session.uids(KOV_UID_REFERENCE, bank.number);
            const uid_result board = session.uids(KOV_UID_BOARD, bank.number);
            ASSERT_EQ(reference.digests.status, KOV_SUCCESS);
            EXPECT_EQ(reference.count * bank.digest_size, reference.digests.length);
            EXPECT_EQ(reference.digests.bytes(), board.digests.bytes());
            EXPECT_EQ(reference.count, board.count);
            EXPECT_EQ(session.pcr(bank.number, 15).bytes(), expected_pcr(bank, reference.digests.bytes()));
        }
        tpm_.kill();
        tpm_.start();
    }
}

TEST_F(objects_test, OfAChipThatIsGoneTheBoardHasZeros)
{
    manifest changed = read_manifest();
    manifest_identifier gone{"net/gone", {}};
    gone.digests[1].fill(0x77);
    changed.identifiers.push_back(gone);
    write_manifest(changed);
    const session_owner session = login();
    std::vector<std::uint8_t> expected = session.uids(KOV_UID_REFERENCE, 2).digests.bytes();
    ASSERT_EQ(expected.size(), changed.identifiers.size() * 32);
    EXPECT_EQ(expected.back(), 0x77);
    std::fill(expected.end() - 32, expected.end(), std::uint8_t{0});
    EXPECT_EQ(session.uids(KOV_UID_BOARD, 2).digests.bytes(), expected);
}

} // namespace
