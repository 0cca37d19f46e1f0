// A table that lives in a std::set of indexes. Its callbacks do what a good module's do; its
// handler does what the test wants of each cell.
#include "tests/agent/ToyTable.h"
#include <array>
#include <cstdlib>
#include <stdexcept>
#include <utility>

using Wire::Oid;

struct ToyTable::Context {
  ToyTable & table;
  std::set<Oid>::const_iterator row;
};

namespace {

template <class T>
T * zeroed() {
  return static_cast<T *>(std::calloc(1, sizeof(T))); // net-snmp frees it
}

Oid subIdentifiers(netsnmp_variable_list * indexes) {
  std::array<oid, MAX_OID_LEN> encoded;
  std::size_t length = 0;
  if (build_oid_noalloc(encoded.data(), encoded.size(), &length, nullptr, 0, indexes) != 0)
    throw std::runtime_error("an index that cannot be encoded");
  return {encoded.begin(), encoded.begin() + length};
}

} // namespace

ToyTable::ToyTable(ToyShape shape) : shape_(std::move(shape)), columnList_(shape_.columns) {
  auto const & root = shape_.root;
  registration_ = netsnmp_create_handler_registration("toy", handle, root.data(), root.size(),
                                                      HANDLER_CAN_RWRITE);
  registration_->my_reg_void = this;
  auto * table = zeroed<netsnmp_table_registration_info>();
  for (auto const type : shape_.indexTypes)
    snmp_varlist_add_variable(&table->indexes, nullptr, 0, type, nullptr, 0)->val_len =
        shape_.indexLength;
  fillColumns(*table);
  auto * info = zeroed<netsnmp_iterator_info>();
  info->get_first_data_point = getFirst;
  info->get_next_data_point = getNext;
  info->make_data_context = makeDataContext;
  info->free_data_context = freeContext;
  info->free_loop_context_at_end = freeContext;
  info->myvoid = this;
  info->flags = shape_.iteratorFlags | NETSNMP_HANDLER_OWNS_IINFO;
  info->table_reginfo = table;
  if (netsnmp_register_table_iterator(registration_, info) != 0)
    throw std::runtime_error("the toy table cannot be registered");
  if (shape_.serialized)
    netsnmp_inject_handler(registration_, netsnmp_get_serialize_handler());
}

ToyTable::~ToyTable() {
  netsnmp_unregister_handler(registration_);
}

void ToyTable::fillColumns(netsnmp_table_registration_info & table) {
  table.min_column = columnList_.front();
  table.max_column = columnList_.back();
  if (shape_.columnsAre == ColumnsAre::unlisted)
    return;
  if (shape_.columnsAre == ColumnsAre::listed) {
    columns_.push_back({0, static_cast<char>(columnList_.size()), {}, nullptr});
    columns_[0].details.list = columnList_.data();
  } else {
    fillRanges();
  }
  table.valid_columns = columns_.data();
}

void ToyTable::fillRanges() {
  for (auto const column : columnList_) {
    if (columns_.empty() || columns_.back().details.range[1] + 1 != column) {
      columns_.push_back({1, 0, {}, nullptr});
      columns_.back().details.range[0] = column;
    }
    columns_.back().details.range[1] = column;
  }
  for (std::size_t at = 1; at < columns_.size(); ++at)
    columns_[at - 1].next = &columns_[at];
}

netsnmp_variable_list * ToyTable::getFirst(void ** loop, void **, netsnmp_variable_list * index,
                                           netsnmp_iterator_info * info) {
  auto & toy = self(info);
  ++toy.calls_;
  auto const * hint = static_cast<netsnmp_table_request_info const *>(*loop);
  auto row = toy.shape_.rows.begin();
  if (hint != nullptr && hint->number_indexes == toy.shape_.indexTypes.size())
    if (auto const found = toy.shape_.rows.find(subIdentifiers(hint->indexes));
        found != toy.shape_.rows.end())
      row = found;
  ++toy.contexts_;
  auto * context = new Context{toy, row};
  *loop = context;
  return toy.fill(*context, index);
}

netsnmp_variable_list * ToyTable::getNext(void ** loop, void **, netsnmp_variable_list * index,
                                          netsnmp_iterator_info * info) {
  auto & toy = self(info);
  ++toy.calls_;
  auto & context = *static_cast<Context *>(*loop);
  ++context.row;
  return toy.fill(context, index);
}

netsnmp_variable_list * ToyTable::fill(Context const & context, netsnmp_variable_list * index) {
  if (context.row == shape_.rows.end())
    return nullptr;
  auto encoded = *context.row;
  for (auto * part = index; part != nullptr; part = part->next_variable)
    snmp_set_var_value(part, "", 0); // an old length would be taken for a fixed one
  if (parse_oid_indexes(encoded.data(), encoded.size(), index) != 0)
    throw std::runtime_error("a row whose index is not of the table's types");
  return index;
}

void * ToyTable::makeDataContext(void * loop, netsnmp_iterator_info * info) {
  ++self(info).contexts_;
  return new Context(*static_cast<Context const *>(loop));
}

void ToyTable::freeContext(void * context, netsnmp_iterator_info * info) {
  --self(info).contexts_;
  delete static_cast<Context *>(context);
}

int ToyTable::handle(netsnmp_mib_handler *, netsnmp_handler_registration * registration,
                     netsnmp_agent_request_info * agent, netsnmp_request_info * requests) {
  // A copy of the registration, made when somebody registers within it, does not have it.
  auto * const self = static_cast<ToyTable *>(registration->my_reg_void);
  for (auto * request = requests; request != nullptr; request = request->next) {
    if (request->processed != 0)
      continue;
    auto const * context = static_cast<Context *>(netsnmp_extract_iterator_context(request));
    if (agent->mode != MODE_GET) {
      if (self != nullptr)
        self->noteSet(agent->mode, request, context != nullptr);
      if (self == nullptr || !self->shape_.writable)
        netsnmp_request_set_error(request, SNMP_ERR_NOTWRITABLE);
      continue;
    }
    if (context == nullptr)
      continue;
    ++context->table.calls_;
    if (auto const status = context->table.answer(request, *context->row); status != 0)
      return status;
  }
  return SNMP_ERR_NOERROR;
}

void ToyTable::noteSet(int phase, netsnmp_request_info * request, bool hasRow) {
  auto const * table = netsnmp_extract_table_info(request);
  auto text =
      std::to_string(phase) + (table == nullptr ? " nothing" : " " + std::to_string(table->colnum));
  if (table != nullptr)
    for (auto const part : subIdentifiers(table->indexes))
      text += " " + std::to_string(part);
  sets_.push_back(text + (hasRow ? "" : " missing"));
}

int ToyTable::answer(netsnmp_request_info * request, Oid const & index) {
  auto const column = netsnmp_extract_table_info(request)->colnum;
  switch (shape_.cell(column, index)) {
  case Cell::value:
    snmp_set_var_typed_value(request->requestvb, ASN_OCTET_STR, shape_.value.data(),
                             shape_.value.size());
    break;
  case Cell::noSuchObject:
    netsnmp_request_set_error(request, SNMP_NOSUCHOBJECT);
    break;
  case Cell::noSuchInstance:
    netsnmp_request_set_error(request, SNMP_NOSUCHINSTANCE);
    break;
  case Cell::endOfMibView:
    netsnmp_request_set_error(request, SNMP_ENDOFMIBVIEW);
    break;
  case Cell::unanswered:
    break;
  case Cell::failure:
    netsnmp_request_set_error(request, SNMP_ERR_GENERR);
    return SNMP_ERR_GENERR;
  case Cell::silentFailure:
    netsnmp_request_set_error(request, SNMP_ERR_GENERR);
    break;
  }
  return SNMP_ERR_NOERROR;
}
