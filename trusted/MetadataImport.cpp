#include "trusted/MetadataImport.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <openssl/bio.h>
#include <openssl/pkcs7.h>
#include <openssl/x509_vfy.h>

#include <cstring>
#include <memory>
#include <vector>

#include "platform/Log.h"
#include "trusted/TarReader.h"
#include "verify/CryptoUtil.h"

namespace Witnessd::Trusted {
namespace {

constexpr const char* kPaksPrefix = "var/db/hyvstore/paks/";
constexpr const char* kProfilesPrefix = "var/db/hyvstore/profiles/";

struct XmlDocFree {
  void operator()(xmlDoc* d) const { xmlFreeDoc(d); }
};
using XmlDocPtr = std::unique_ptr<xmlDoc, XmlDocFree>;

struct XmlStringFree {
  void operator()(xmlChar* s) const { xmlFree(s); }
};
using XmlString = std::unique_ptr<xmlChar, XmlStringFree>;

bool NameIs(const xmlNode* node, const char* name) {
  return node->type == XML_ELEMENT_NODE && strcmp(reinterpret_cast<const char*>(node->name), name) == 0;
}

// Content of |node| as text; nullptr content reads as absent.
bool NodeText(xmlNode* node, std::string* out) {
  XmlString content(xmlNodeGetContent(node));
  if (!content) {
    return false;
  }
  *out = reinterpret_cast<const char*>(content.get());
  return true;
}

bool Attribute(xmlNode* node, const char* name, std::string* out) {
  XmlString value(xmlGetProp(node, reinterpret_cast<const xmlChar*>(name)));
  if (!value) {
    return false;
  }
  *out = reinterpret_cast<const char*>(value.get());
  return true;
}

// Copies |text| into a fixed field of |cap| bytes; false when it does not fit.
template <size_t kCap>
bool CopyField(const std::string& text, char (&field)[kCap]) {
  if (text.size() >= kCap) {
    return false;
  }
  memcpy(field, text.c_str(), text.size() + 1);
  return true;
}

xmlNode* FirstElementNamed(xmlNode* node, const char* name) {
  for (; node != nullptr; node = node->next) {
    if (NameIs(node, name)) {
      return node;
    }
    if (node->type == XML_ELEMENT_NODE) {
      if (xmlNode* found = FirstElementNamed(node->children, name)) {
        return found;
      }
    }
  }
  return nullptr;
}

xmlNode* FirstElementWithText(xmlNode* node, const std::string& text) {
  for (; node != nullptr; node = node->next) {
    if (node->type != XML_ELEMENT_NODE) {
      continue;
    }
    std::string content;
    if (NodeText(node, &content) && content == text) {
      return node;
    }
    if (xmlNode* found = FirstElementWithText(node->children, text)) {
      return found;
    }
  }
  return nullptr;
}

// Documents with a DTD are refused: entity expansion is never wanted in
// package metadata and is the classic way to blow up a parser's output.
XmlDocPtr ReadXml(const std::vector<uint8_t>& bytes) {
  if (bytes.size() > INT32_MAX) {
    return nullptr;
  }
  XmlDocPtr doc(xmlReadMemory(reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size()),
                              nullptr, nullptr, XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  if (doc && doc->intSubset != nullptr) {
    doc.reset();
  }
  return doc;
}

// The first regular entry that is the package's file with |suffix|: the
// package name must be followed directly by the suffix.
bool FindPakEntry(TarArchive* archive, const std::string& pak_name, const char* suffix, std::string* out) {
  std::string wanted = std::string(kPaksPrefix) + pak_name + suffix;
  TarIterator it{archive};
  char type;
  std::string name;
  while (TarReaderIterNext(&it, &type, &name)) {
    if ((type == '0' || type == '\0') && name == wanted) {
      *out = name;
      return true;
    }
  }
  return false;
}

bool FindProfileEntry(TarArchive* archive, std::string* out) {
  TarIterator it{archive};
  char type;
  std::string name;
  size_t prefix_len = strlen(kProfilesPrefix);
  while (TarReaderIterNext(&it, &type, &name)) {
    if ((type == '0' || type == '\0') && name.compare(0, prefix_len, kProfilesPrefix) == 0 &&
        name.size() > prefix_len) {
      *out = name;
      return true;
    }
  }
  return false;
}

bool ReadEntry(TarArchive* archive, const std::string& name, std::vector<uint8_t>* out) {
  if (!TarReaderReadFile(archive, name, out)) {
    Warning("TPM2VLIB: Failed to find filename: %s in HYV PAK metadata\n", name.c_str());
    return false;
  }
  return true;
}

TarArchivePtr OpenTar(ByteView tar) {
  TarArchivePtr archive(TarReaderPopulate(tar.data, tar.len));
  if (!archive) {
    Warning("TPM2VLIB: Failed to initialize imgdb TAR iteration\n");
  }
  return archive;
}

bool ReadProperties(xmlNode* root, const std::string& pak_name, PakProperties* out) {
  const struct {
    const char* name;
    char* field;
  } kProps[] = {{"name", out->name},
                {"type", out->type},
                {"version", out->version},
                {"vendor", out->vendor},
                {"summary", out->summary}};
  for (const auto& p : kProps) {
    xmlNode* node = FirstElementNamed(root->children, p.name);
    std::string text;
    if (node == nullptr) {
      Warning("TPM2VLIB: Failed to get %s property content; %s\n", p.name, pak_name.c_str());
      return false;
    }
    if (!NodeText(node, &text) || text.empty()) {
      Warning("TPM2VLIB: Pak property %s has no content\n", p.name);
      return false;
    }
    if (text.size() > kPakTextMax) {
      Warning("TPM2VLIB: Pak property %s length limit exceeded; %s\n", p.name, pak_name.c_str());
      return false;
    }
    memcpy(p.field, text.c_str(), text.size() + 1);
  }
  return true;
}

// Accepts the descriptor when any PKCS#7 block of |sig| verifies it against
// |store|; blocks are tried in order.
bool SignatureAccepted(const std::vector<uint8_t>& desc, const std::vector<uint8_t>& sig, X509_STORE* store,
                       const std::string& pak_name) {
  Verify::BioPtr reader = Verify::OpenMemoryReader(sig.data(), sig.size());
  if (!reader) {
    return false;
  }
  for (;;) {
    Verify::Pkcs7Ptr p7;
    if (!Verify::ReadNextPkcs7(reader.get(), &p7)) {
      return false;
    }
    std::string error;
    if (Verify::HvkSignVerify(p7.get(), desc.data(), desc.size(), nullptr, store, &error)) {
      return true;
    }
    Warning("TPM2VLIB: Failed to validate PAK entry signature; %s, e: %s\n", pak_name.c_str(), error.c_str());
  }
}

// Reads the core system module's payload list of the image profile: payload
// file name to payload name.
bool ParseProfile(xmlNode* root, const PakProperties& props,
                  std::unordered_map<std::string, std::string>* profile_map) {
  std::string core = std::string("Quarro_") + props.name + "_" + props.type + "_" + props.version;
  xmlNode* node = FirstElementWithText(root, core);
  if (node == nullptr) {
    Warning("TPM2VLIB: Couldn't find the node corresponding to the core system\n");
    return false;
  }
  xmlNode* payloads = nullptr;
  for (xmlNode* s = node->next; s != nullptr && payloads == nullptr; s = s->next) {
    if (NameIs(s, "payloads")) {
      payloads = s;
    }
  }
  if (payloads == nullptr) {
    Warning("TPM2VLIB: Pak does not have 'payloads' sibling; %s\n", props.name);
    return false;
  }
  for (xmlNode* p = payloads->children; p != nullptr; p = p->next) {
    if (!NameIs(p, "payload")) {
      continue;
    }
    std::string file_name;
    std::string payload_name;
    if (!NodeText(p, &file_name) || file_name.empty()) {
      Warning("TPM2VLIB: Payload had no content; %s\n", props.name);
      return false;
    }
    if (!Attribute(p, "payload-name", &payload_name)) {
      Warning("TPM2VLIB: Payload had no corresponding payload name; %s\n", file_name.c_str());
      return false;
    }
    if (!profile_map->emplace(file_name, payload_name).second) {
      Warning("TPM2VLIB: Failed to insert entry in hash-table for payload file name; %s\n", file_name.c_str());
      return false;
    }
  }
  return true;
}

bool ParseChecksum(xmlNode* c, const std::string& payload_name, PayloadChecksum* out) {
  std::string text;
  if (!NodeText(c, &text) || text.empty()) {
    Warning("TPM2VLIB: Payload %s has no checksum\n", payload_name.c_str());
    return false;
  }
  if (!CopyField(text, out->checksum)) {
    Warning("TPM2VLIB: Checksum length limit exceeded for payload name; %s\n", payload_name.c_str());
    return false;
  }
  std::string type;
  if (!Attribute(c, "checksum-type", &type)) {
    Warning("TPM2VLIB: Failed to get checksum type for payload name; %s\n", payload_name.c_str());
    return false;
  }
  if (!CopyField(type, out->checksum_type)) {
    Warning("TPM2VLIB: Checksum type length limit exceeded for payload name; %s\n", payload_name.c_str());
    return false;
  }
  std::string process;
  Attribute(c, "verify-process", &process);
  if (!CopyField(process, out->verify_process)) {
    Warning("TPM2VLIB: Checksum verify-process length limit exceeded for payload name; %s\n",
            payload_name.c_str());
    return false;
  }
  return true;
}

bool ParseDescriptorPayloads(xmlNode* root, PayloadTable* table) {
  xmlNode* payloads = FirstElementNamed(root, "payloads");
  if (payloads == nullptr) {
    Warning("TPM2VLIB: Couldn't find the node corresponding to payloads\n");
    return false;
  }
  for (xmlNode* p = payloads->children; p != nullptr; p = p->next) {
    if (!NameIs(p, "payload")) {
      continue;
    }
    PayloadRecord rec = {};
    std::string name;
    std::string type;
    if (!Attribute(p, "name", &name)) {
      Warning("TPM2VLIB: Payload had no content; %s\n", "name");
      return false;
    }
    if (!CopyField(name, rec.name)) {
      Warning("TPM2VLIB: Payload name length limit exceeded; %s\n", name.c_str());
      return false;
    }
    if (!Attribute(p, "type", &type)) {
      Warning("TPM2VLIB: Failed to get payload type for payload name; %s\n", name.c_str());
      return false;
    }
    if (!CopyField(type, rec.type)) {
      Warning("TPM2VLIB: Payload type length limit exceeded for payload name; %s\n", name.c_str());
      return false;
    }
    for (xmlNode* c = p->children; c != nullptr; c = c->next) {
      if (!NameIs(c, "checksum")) {
        continue;
      }
      if (rec.checksum_count == kMaxPayloadChecksums) {
        Warning("TPM2VLIB: Max checksums limit exceeded for payload name; %s\n", name.c_str());
        return false;
      }
      if (!ParseChecksum(c, name, &rec.checksums[rec.checksum_count])) {
        return false;
      }
      ++rec.checksum_count;
    }
    if (!table->emplace(name, rec).second) {
      Warning("TPM2VLIB: Failed to insert entry in hash-table for payload name; %s\n", name.c_str());
      return false;
    }
  }
  return !table->empty();
}

// Re-keys the records the profile lists by their file name.
bool MergePayloads(const std::unordered_map<std::string, std::string>& profile_map, PayloadTable* table) {
  for (const auto& [file_name, payload_name] : profile_map) {
    auto node = table->extract(payload_name);
    if (node.empty()) {
      return false;
    }
    if (!CopyField(file_name, node.mapped().file_name)) {
      Warning("TPM2VLIB: Payload file name length limit exceeded; %s\n", file_name.c_str());
      return false;
    }
    node.key() = file_name;
    if (!table->insert(std::move(node)).inserted) {
      Warning("TPM2VLIB: Failed to insert entry in hash-table for payload file name; %s\n", file_name.c_str());
      return false;
    }
  }
  return true;
}

}  // namespace

VerifyStatus GetPakProperties(ByteView tar, const std::string& pak_name, PakProperties* out) {
  if (tar.data == nullptr || tar.len == 0) {
    return kPakEntryMissing;
  }
  TarArchivePtr archive = OpenTar(tar);
  std::string desc_name;
  if (!archive || !FindPakEntry(archive.get(), pak_name, ".orig", &desc_name)) {
    Warning("TPM2VLIB: Failed to get PAK entry desc; %s\n", pak_name.c_str());
    return archive ? kPakDescriptorMissing : kPakEntryMissing;
  }
  std::vector<uint8_t> desc;
  if (!ReadEntry(archive.get(), desc_name, &desc)) {
    return kPakEntryMissing;
  }
  XmlDocPtr doc = ReadXml(desc);
  xmlNode* root = doc ? xmlDocGetRootElement(doc.get()) : nullptr;
  if (root == nullptr) {
    Warning("TPM2VLIB: Failed to read buffer as XML document\n");
    return kPakXmlUnusable;
  }
  PakProperties props = {};
  if (!ReadProperties(root, pak_name, &props)) {
    return kPakXmlUnusable;
  }
  *out = props;
  return 0;
}

VerifyStatus ImportPakMetadata(ByteView tar, ByteView certs, const std::string& pak_name, PayloadTable* out) {
  // Establishes, in order: the descriptor and its signature entry exist; one
  // of the PKCS#7 blocks verifies the descriptor against the maker's
  // certificates; the image profile and the descriptor parse; the core system
  // module lists payloads the descriptor describes within every limit.
  if (tar.data == nullptr || tar.len == 0) {
    Warning("TPM2VLIB: Imgdb TAR is not specified or empty\n");
    return kPakEntryMissing;
  }
  if (certs.data == nullptr || certs.len == 0) {
    Warning("TPM2VLIB: Imgdb cert is not specified or empty\n");
    return kPakCertsUnusable;
  }
  TarArchivePtr archive = OpenTar(tar);
  if (!archive) {
    return kPakEntryMissing;
  }
  std::string desc_name;
  if (!FindPakEntry(archive.get(), pak_name, ".orig", &desc_name)) {
    Log_Level(kLogInfo, "TPM2VLIB: Failed to get PAK entry desc; %s\n", pak_name.c_str());
    return kPakDescriptorMissing;
  }
  std::string sig_name;
  if (!FindPakEntry(archive.get(), pak_name, ".sig", &sig_name)) {
    Warning("TPM2VLIB: Failed to get PAK entry signature; %s\n", pak_name.c_str());
    return kPakEntryMissing;
  }
  std::vector<uint8_t> desc;
  std::vector<uint8_t> sig;
  if (!ReadEntry(archive.get(), desc_name, &desc) || !ReadEntry(archive.get(), sig_name, &sig)) {
    return kPakEntryMissing;
  }

  Verify::X509StorePtr store = Verify::LoadPemCertStore(certs.data, certs.len);
  if (!store) {
    Warning("TPM2VLIB: Failed to convert imgdb PEM cert\n");
    return kPakCertsUnusable;
  }
  if (!SignatureAccepted(desc, sig, store.get(), pak_name)) {
    return kPakSignatureInvalid;
  }

  std::string profile_name;
  std::vector<uint8_t> profile;
  if (!FindProfileEntry(archive.get(), &profile_name) || !ReadEntry(archive.get(), profile_name, &profile)) {
    Warning("TPM2VLIB: Failed to get image profile buffer\n");
    return kPakEntryMissing;
  }
  XmlDocPtr profile_doc = ReadXml(profile);
  XmlDocPtr desc_doc = ReadXml(desc);
  if (!profile_doc || !desc_doc) {
    Warning("TPM2VLIB: Failed to read buffer as XML document\n");
    return kPakXmlUnusable;
  }
  xmlNode* profile_root = xmlDocGetRootElement(profile_doc.get());
  xmlNode* desc_root = xmlDocGetRootElement(desc_doc.get());
  if (profile_root == nullptr || desc_root == nullptr) {
    Warning("TPM2VLIB: Failed to read buffer as XML document\n");
    return kPakXmlUnusable;
  }
  PakProperties props = {};
  if (!ReadProperties(desc_root, pak_name, &props)) {
    return kPakXmlUnusable;
  }
  std::unordered_map<std::string, std::string> profile_map;
  if (!ParseProfile(profile_root, props, &profile_map)) {
    Warning("TPM2VLIB: Failed to parse module from image profile\n");
    return kPakXmlUnusable;
  }
  PayloadTable table;
  if (!ParseDescriptorPayloads(desc_root, &table)) {
    Warning("TPM2VLIB: Failed to parse descriptor as XML document\n");
    return kPakXmlUnusable;
  }
  if (!MergePayloads(profile_map, &table)) {
    Warning("TPM2VLIB: Failed to merge payloads to have payload filename as an identifier.\n");
    return kPakMergeFailed;
  }
  *out = std::move(table);
  return 0;
}

}  // namespace Witnessd::Trusted
