// Tags and the decoder table of type-tagged collections.
#include "kp/storage/codable_typed_collection.h"

namespace kp {

std::string CodableTypedCollection::tagOf(const AnyCodable& item, const std::optional<Encoders>& types) {
  if (types) {
    for (const auto& encoder : *types) {
      if (encoder && encoder->isType(item.type())) return encoder->typeName();
    }
  }
  return tarvix::unqualifiedTypeName(item.type());
}

CodableTypedCollection::DecoderTable CodableTypedCollection::tableOf(const Decoders& types) {
  DecoderTable table;
  for (const auto& decoder : types) {
    if (!decoder) continue;
    // A later decoder of the same name replaces an earlier one.
    for (const std::string& name : decoder->typeNames()) table.insert_or_assign(name, decoder);
  }
  return table;
}

CodableTypedCollection::Wrapper CodableTypedCollection::Wrapper::decode(const Decoder& d) {
  KeyedDecoder keyed = d.keyed();
  Wrapper wrapper{keyed.decode<std::string>("type"), std::nullopt};
  const UserInfo& info = d.userInfo();
  auto entry = info.find(kDecodersKey);
  if (entry == info.end()) return wrapper;
  const auto* table = std::any_cast<std::shared_ptr<const DecoderTable>>(&entry->second);
  if (!table || !*table) return wrapper;
  auto found = (*table)->find(wrapper.type);
  // Unknown tags leave the element absent without reading its data.
  if (found == (*table)->end()) return wrapper;
  const Decoder data = keyed.decoderForKey("data");
  wrapper.item = found->second->decode(data);
  return wrapper;
}

}  // namespace kp
