// The reading of the iteration counts inputs name; see platform/WorkBounds.h.
#include "platform/WorkBounds.h"

#include <openssl/asn1.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include "platform/OsslPtr.h"

namespace qor {

namespace {

// The PKCS#5 v1 and PKCS#12 password-based schemes: one key derivation with the count of their
// PBEParameter.
bool IsPbes1(int nid) {
    switch (nid) {
        case NID_pbeWithMD2AndDES_CBC:
        case NID_pbeWithMD5AndDES_CBC:
        case NID_pbeWithMD2AndRC2_CBC:
        case NID_pbeWithMD5AndRC2_CBC:
        case NID_pbeWithSHA1AndDES_CBC:
        case NID_pbeWithSHA1AndRC2_CBC:
        case NID_pbe_WithSHA1And128BitRC4:
        case NID_pbe_WithSHA1And40BitRC4:
        case NID_pbe_WithSHA1And3_Key_TripleDES_CBC:
        case NID_pbe_WithSHA1And2_Key_TripleDES_CBC:
        case NID_pbe_WithSHA1And128BitRC2_CBC:
        case NID_pbe_WithSHA1And40BitRC2_CBC:
            return true;
        default:
            return false;
    }
}

}  // namespace

long Iterations(ASN1_INTEGER const* iter) {
    long const n = iter == nullptr ? 1 : ASN1_INTEGER_get(iter);
    return n >= 1 && n <= kMaxIterations ? n : -1;
}

long PbeIterations(X509_ALGOR const* alg) {
    if (alg == nullptr)
        return -1;
    ASN1_OBJECT const* oid = nullptr;
    int ptype = 0;
    void const* pval = nullptr;
    X509_ALGOR_get0(&oid, &ptype, &pval, alg);
    if (ptype != V_ASN1_SEQUENCE)
        return -1;
    ASN1_TYPE const* param = alg->parameter;
    int const nid = OBJ_obj2nid(oid);
    if (IsPbes1(nid)) {
        PbeParamPtr const pbe(
            static_cast<PBEPARAM*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBEPARAM), param)));
        return pbe != nullptr ? Iterations(pbe->iter) : -1;
    }
    if (nid != NID_pbes2)
        return -1;
    Pbe2ParamPtr const pbe2(
        static_cast<PBE2PARAM*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBE2PARAM), param)));
    if (pbe2 == nullptr || pbe2->keyfunc == nullptr ||
        OBJ_obj2nid(pbe2->keyfunc->algorithm) != NID_id_pbkdf2)
        return -1;
    Pbkdf2ParamPtr const kdf(static_cast<PBKDF2PARAM*>(
        ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBKDF2PARAM), pbe2->keyfunc->parameter)));
    return kdf != nullptr ? Iterations(kdf->iter) : -1;
}

}  // namespace qor
