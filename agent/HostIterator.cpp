#include "agent/HostIterator.h"
#include <algorithm>
#include <array>
#include <climits>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/agent/bulk_to_next.h>
#include <net-snmp/library/vacm.h>

namespace Agent {

namespace {

constexpr char const * handlerName = "host_iterator";
constexpr oid entryNumber = 1; // the last part of an entry's OID, below its table's

using SubIds = std::span<oid const>;

SubIds nameOf(netsnmp_variable_list const & varbind) {
  return {varbind.name, varbind.name_length};
}

/// Index varbinds of the types that a table has, to be filled again and again.
class IndexVarbinds {
public:
  explicit IndexVarbinds(netsnmp_variable_list * like) : list_(snmp_clone_varbind(like)) {}

  netsnmp_variable_list * get() const { return list_.get(); }
  /// Without the values of the last time: an old length would be taken for a fixed one.
  netsnmp_variable_list * emptied() const {
    for (auto * one = list_.get(); one != nullptr; one = one->next_variable) {
      if (one->val.string != nullptr && one->val.string != one->buf)
        snmp_set_var_value(one, nullptr, 0);
      one->val_len = 0;
    }
    return list_.get();
  }

private:
  struct Free {
    void operator()(netsnmp_variable_list * list) const { snmp_free_varbind(list); }
  };
  std::unique_ptr<netsnmp_variable_list, Free> const list_;
};

bool isNumber(netsnmp_variable_list const & varbind) {
  return varbind.type == ASN_INTEGER || varbind.type == ASN_UNSIGNED;
}
bool isOctets(netsnmp_variable_list const & varbind) {
  return varbind.type == ASN_OCTET_STR;
}

std::size_t encodeAny(netsnmp_variable_list * indexes, std::span<oid> to) {
  std::size_t length = 0;
  auto const status = build_oid_noalloc(to.data(), to.size(), &length, nullptr, 0, indexes);
  return status == SNMPERR_SUCCESS ? length : 0;
}

/// Writes the varbinds of an index as the end of a name. Returns the number of sub-identifiers, or
/// 0 when there is no room for them.
std::size_t encode(netsnmp_variable_list * indexes, std::span<oid> to) {
  std::size_t length = 0;
  for (auto const * one = indexes; one != nullptr; one = one->next_variable) {
    if (!isOctets(*one) && !isNumber(*one))
      return encodeAny(indexes, to);
    if (length + 1 + (isOctets(*one) ? one->val_len : 0) > to.size())
      return 0;
    to[length++] = isOctets(*one) ? one->val_len : static_cast<oid>(*one->val.integer);
    if (isOctets(*one))
      length = std::copy_n(one->val.string, one->val_len, to.data() + length) - to.data();
  }
  return length;
}

bool decodeAny(std::span<oid> index, netsnmp_variable_list * to) {
  return parse_oid_indexes(index.data(), index.size(), to) == SNMPERR_SUCCESS;
}

/// Reads the length and so many octets. Returns how many sub-identifiers that were; 0 if some are
/// missing or are no octets.
std::size_t decodeOctets(SubIds from, netsnmp_variable_list * to) {
  auto const length = from.front();
  auto const isOctet = [](oid subId) { return subId <= UCHAR_MAX; };
  if (length >= from.size() || !std::ranges::all_of(from.subspan(1, length), isOctet))
    return 0;
  std::array<u_char, MAX_OID_LEN> octets;
  std::ranges::copy(from.subspan(1, length), octets.data());
  snmp_set_var_value(to, octets.data(), length);
  return 1 + length;
}

/// The reverse of encode(). False for an index that has a part too few or too many, or an octet
/// above 255: net-snmp's handlers then decide what it means. Requires: the varbinds are emptied.
bool decode(std::span<oid> index, netsnmp_variable_list * to) {
  for (auto const * one = to; one != nullptr; one = one->next_variable)
    if (!isOctets(*one) && !isNumber(*one))
      return decodeAny(index, to);
  SubIds rest = index;
  for (auto * one = to; one != nullptr; one = one->next_variable) {
    if (rest.empty())
      return false;
    if (isNumber(*one))
      snmp_set_var_value(one, &rest.front(), sizeof rest.front());
    auto const taken = isNumber(*one) ? 1 : decodeOctets(rest, one);
    if (taken == 0)
      return false;
    rest = rest.subspan(taken);
  }
  return rest.empty();
}

/// What a handler of ours keeps from call to call, one for each registration.
struct Table {
  explicit Table(netsnmp_iterator_info * iterator)
      : info(iterator),
        asked(iterator->table_reginfo->indexes),
        row(iterator->table_reginfo->indexes) {}

  netsnmp_iterator_info * const info; // of the handler "table_iterator" of the same registration
  IndexVarbinds const asked;
  IndexVarbinds const row;
};

/// A place in the table: a column, and a row that the module's callbacks found.
class Cursor {
public:
  /// Starts in the request's column, where the module starts when the request is its hint.
  Cursor(Table const & table, SubIds root, netsnmp_table_request_info & request);
  Cursor(Cursor const &) = delete;
  Cursor & operator=(Cursor const &) = delete;
  ~Cursor() { leaveRows(); }

  bool atEnd() const { return row_ == nullptr; }
  oid column() const { return name_[prefixLength_ - 1]; }
  /// The cell's name, and the row's index in it. Requires: not at the end.
  SubIds name() const { return {name_.data(), prefixLength_ + indexLength_}; }
  SubIds index() const { return name().subspan(prefixLength_); }
  netsnmp_variable_list * indexVarbinds() const { return row_; }
  void * makeDataContext() const { return table_.info->make_data_context(loop_, table_.info); }

  /// The next row or, after the last one, the first row of the next column. The request's column
  /// follows.
  void nextRow();
  void nextColumn();

private:
  void firstRow(void * hint);
  void leaveRows();
  void arriveAt(netsnmp_variable_list * row);

  Table const & table_;
  netsnmp_table_request_info & request_;
  std::size_t const prefixLength_; // of the root, the entry and the column
  std::size_t indexLength_ = 0;
  void * loop_ = nullptr;
  netsnmp_variable_list * row_ = nullptr;
  std::array<oid, MAX_OID_LEN> name_;
};

/// One call of the handler: some requests of one PDU.
class Call {
public:
  Call(netsnmp_mib_handler * self, netsnmp_handler_registration * registration,
       netsnmp_agent_request_info * agent);

  int serve(netsnmp_request_info * requests);

private:
  int serveOne(netsnmp_request_info & request);
  int leaveToStock(netsnmp_request_info & request);

  bool understand(netsnmp_request_info const & request);
  bool understandColumn(oid number);
  bool understandIndex(SubIds index);
  bool beforeFirstColumn(SubIds name) const;

  int get(netsnmp_request_info & request);
  int walk(netsnmp_request_info & request);
  bool answerRepetitions(netsnmp_request_info & request);
  int repetitions(netsnmp_request_info const & request);
  bool seesEnough();
  void skipAsked(Cursor & cursor) const;
  bool answer(netsnmp_request_info & request, Cursor const & cursor);
  int askModule(netsnmp_request_info & request, void * dataContext);

  netsnmp_mib_handler * const self_;
  netsnmp_handler_registration * const registration_;
  netsnmp_agent_request_info * const agent_;
  Table const & table_;
  SubIds const root_;
  netsnmp_mib_handler * const module_;
  std::optional<bool> seesEnough_;
  netsnmp_table_request_info asked_; // what the request under way names, as the module sees it
};

/// Lets the handlers beneath see a request alone, as net-snmp's serialize handler does.
class Alone {
public:
  explicit Alone(netsnmp_request_info & request) : request_(request), next_(request.next) {
    request.next = nullptr;
  }
  Alone(Alone const &) = delete;
  Alone & operator=(Alone const &) = delete;
  ~Alone() { request_.next = next_; }

private:
  netsnmp_request_info & request_;
  netsnmp_request_info * const next_;
};

/// A request as it came, to take back what was answered.
class Before {
public:
  explicit Before(netsnmp_request_info const & request);
  void restore(netsnmp_request_info & request) const;

private:
  netsnmp_variable_list * const varbind_;
  int const repeat_;
  std::size_t const nameLength_;
  std::array<oid, MAX_OID_LEN> name_;
};

// Taking over

int handle(netsnmp_mib_handler * self, netsnmp_handler_registration * registration,
           netsnmp_agent_request_info * agent, netsnmp_request_info * requests) {
  if (agent->mode == MODE_GET || agent->mode == MODE_GETNEXT || agent->mode == MODE_GETBULK)
    return Call(self, registration, agent).serve(requests);
  return netsnmp_call_next_handler(self, registration, agent, requests);
}

netsnmp_mib_handler * iteratorBeneath(netsnmp_mib_handler * handler) {
  while (handler != nullptr && handler->access_method != netsnmp_table_iterator_helper_handler)
    handler = handler->next;
  return handler;
}

/// True if and only if nothing stands above the iterator but what this one replaces.
bool isStock(netsnmp_handler_registration const & registration) {
  constexpr std::array<std::string_view, 4> names{"serialize", "bulk_to_next", TABLE_HANDLER_NAME,
                                                  TABLE_ITERATOR_NAME};
  auto const * handler = registration.handler;
  for (auto const name : names) {
    if (handler == nullptr || handler->handler_name != name)
      return false;
    handler = handler->next;
  }
  return handler != nullptr;
}

bool hasFixedLengths(netsnmp_variable_list const * indexes) {
  while (indexes != nullptr && indexes->val_len == 0)
    indexes = indexes->next_variable;
  return indexes != nullptr;
}

bool isServed(netsnmp_iterator_info const & info) {
  return (info.flags & NETSNMP_ITERATOR_FLAG_SORTED) != 0 && info.free_loop_context == nullptr &&
         info.get_first_data_point != nullptr && info.get_next_data_point != nullptr &&
         info.make_data_context != nullptr && info.free_data_context != nullptr &&
         info.free_loop_context_at_end != nullptr && !hasFixedLengths(info.table_reginfo->indexes);
}

netsnmp_mib_handler * makeHandler(netsnmp_iterator_info * info) {
  auto * handler = netsnmp_create_handler(handlerName, handle);
  handler->myvoid = std::make_unique<Table>(info).release();
  // A registration is copied when somebody registers a name within it.
  handler->data_clone = [](void * table) -> void * {
    return std::make_unique<Table>(static_cast<Table const *>(table)->info).release();
  };
  handler->data_free = [](void * table) { delete static_cast<Table const *>(table); };
  return handler;
}

bool takeOver(netsnmp_handler_registration * registration) {
  if (registration == nullptr || !isStock(*registration))
    return false;
  auto * info =
      static_cast<netsnmp_iterator_info *>(iteratorBeneath(registration->handler)->myvoid);
  return isServed(*info) &&
         netsnmp_inject_handler(registration, makeHandler(info)) == SNMPERR_SUCCESS;
}

} // namespace

std::size_t installHostIterator() {
  std::size_t count = 0;
  for (auto * context = get_top_context_cache(); context != nullptr; context = context->next)
    for (auto * subtree = context->first_subtree; subtree != nullptr; subtree = subtree->next)
      for (auto * layer = subtree; layer != nullptr; layer = layer->children)
        count += takeOver(layer->reginfo);
  return count;
}

namespace {

// Cursor

Cursor::Cursor(Table const & table, SubIds root, netsnmp_table_request_info & request)
    : table_(table),
      request_(request),
      prefixLength_(root.size() + 2) {
  auto * end = std::ranges::copy(root, name_.data()).out;
  *end++ = entryNumber;
  *end = request.colnum;
  firstRow(&request);
}

void Cursor::nextRow() {
  void * dataContext = nullptr;
  arriveAt(table_.info->get_next_data_point(&loop_, &dataContext, row_, table_.info));
  if (atEnd())
    nextColumn();
}

void Cursor::nextColumn() {
  leaveRows();
  row_ = nullptr;
  auto const column = netsnmp_table_next_column(&request_);
  if (column == 0)
    return;
  request_.colnum = column;
  name_[prefixLength_ - 1] = column;
  firstRow(nullptr);
}

void Cursor::firstRow(void * hint) {
  loop_ = hint;
  void * dataContext = nullptr;
  auto * row =
      table_.info->get_first_data_point(&loop_, &dataContext, table_.row.emptied(), table_.info);
  if (loop_ == hint)
    loop_ = nullptr; // the module left it there: it is nothing of the module's to free
  arriveAt(row);
}

void Cursor::leaveRows() {
  if (loop_ != nullptr)
    table_.info->free_loop_context_at_end(loop_, table_.info);
  loop_ = nullptr;
}

void Cursor::arriveAt(netsnmp_variable_list * row) {
  row_ = row;
  if (row != nullptr)
    indexLength_ = encode(row, std::span(name_).subspan(prefixLength_));
}

// Call

Call::Call(netsnmp_mib_handler * self, netsnmp_handler_registration * registration,
           netsnmp_agent_request_info * agent)
    : self_(self),
      registration_(registration),
      agent_(agent),
      table_(*static_cast<Table const *>(self->myvoid)),
      root_(registration->rootoid, registration->rootoid_len),
      module_(iteratorBeneath(self)->next) {
  asked_.reg_info = table_.info->table_reginfo;
}

int Call::serve(netsnmp_request_info * requests) {
  for (auto * request = requests; request != nullptr; request = request->next) {
    Alone const alone(*request);
    if (auto const status = serveOne(*request); status != SNMP_ERR_NOERROR)
      return status;
  }
  return SNMP_ERR_NOERROR;
}

int Call::serveOne(netsnmp_request_info & request) {
  if (request.processed != 0 || !understand(request))
    return leaveToStock(request);
  return agent_->mode == MODE_GET ? get(request) : walk(request);
}

int Call::leaveToStock(netsnmp_request_info & request) {
  return netsnmp_call_next_handler(self_, registration_, agent_, &request);
}

bool beginsWith(SubIds name, SubIds prefix) {
  return name.size() >= prefix.size() && std::ranges::equal(name.first(prefix.size()), prefix);
}

/// False for everything that is not the name of a cell or, in a walk, of a column or a place before
/// the first one; and where somebody else has registered a later part of the table.
bool Call::understand(netsnmp_request_info const & request) {
  asked_.number_indexes = 0;
  asked_.index_oid_len = 0;
  asked_.indexes = table_.asked.emptied();
  auto const walks = agent_->mode != MODE_GET;
  if (walks && beginsWith({request.range_end, request.range_end_len}, root_))
    return false;
  auto const name = nameOf(*request.requestvb);
  if (walks && beforeFirstColumn(name))
    return understandColumn(asked_.reg_info->min_column);
  auto const columnAt = root_.size() + 1;
  if (name.size() <= columnAt || !beginsWith(name, root_) || name[root_.size()] != entryNumber ||
      !understandColumn(name[columnAt]))
    return false;
  auto const index = name.subspan(columnAt + 1);
  return index.empty() ? walks : understandIndex(index);
}

bool Call::understandColumn(oid number) {
  if (number < asked_.reg_info->min_column || number > asked_.reg_info->max_column)
    return false;
  asked_.colnum = static_cast<unsigned int>(number) - 1;
  asked_.colnum = netsnmp_table_next_column(&asked_);
  return asked_.colnum == number;
}

bool Call::understandIndex(SubIds index) {
  std::ranges::copy(index, asked_.index_oid);
  asked_.index_oid_len = index.size();
  asked_.number_indexes = asked_.reg_info->number_indexes;
  return decode({asked_.index_oid, index.size()}, table_.asked.get());
}

bool Call::beforeFirstColumn(SubIds name) const {
  auto const [at, inRoot] = std::ranges::mismatch(name, root_);
  if (at == name.end())
    return true;
  if (inRoot != root_.end())
    return *at < *inRoot;
  std::array<oid, 2> const first{entryNumber, asked_.reg_info->min_column};
  return !std::lexicographical_compare(first.begin(), first.end(), at, name.end());
}

int Call::get(netsnmp_request_info & request) {
  Cursor const cursor(table_, root_, asked_);
  SubIds const asked{asked_.index_oid, asked_.index_oid_len};
  auto const found = !cursor.atEnd() && std::ranges::equal(cursor.index(), asked);
  return askModule(request, found ? cursor.makeDataContext() : nullptr);
}

int Call::walk(netsnmp_request_info & request) {
  Before const before(request);
  if (answerRepetitions(request))
    return SNMP_ERR_NOERROR;
  before.restore(request);
  return leaveToStock(request);
}

bool isMissing(u_char type) {
  return type == SNMP_NOSUCHOBJECT || type == SNMP_NOSUCHINSTANCE || type == SNMP_ENDOFMIBVIEW;
}

/// Answers until enough is answered or the table ends: then the next varbind is one without an
/// answer, and the agent looks elsewhere for it. False when there is no answer at all, or a cell
/// that the module does not answer.
bool Call::answerRepetitions(netsnmp_request_info & request) {
  Cursor cursor(table_, root_, asked_);
  skipAsked(cursor);
  netsnmp_variable_list const * last = nullptr;
  for (auto left = repetitions(request); !cursor.atEnd();) {
    if (!answer(request, cursor))
      return false;
    auto const type = request.requestvb->type;
    if (isMissing(type)) {
      if (!seesEnough())
        return false;
      type == SNMP_NOSUCHINSTANCE ? cursor.nextRow() : cursor.nextColumn();
      continue;
    }
    // After it has refused an answer the agent counts more repetitions than there are varbinds.
    if (--left == 0 || request.requestvb->next_variable == nullptr) {
      netsnmp_bulk_to_next_fix_requests(&request);
      return true;
    }
    // What that function does, without a name that the next answer would replace.
    last = request.requestvb;
    request.requestvb = last->next_variable;
    --request.repeat;
    cursor.nextRow();
  }
  if (last == nullptr)
    return false;
  request.requestvb->type = ASN_NULL;
  snmp_set_var_objid(request.requestvb, last->name, last->name_length);
  return true;
}

int Call::repetitions(netsnmp_request_info const & request) {
  return request.repeat > 0 && seesEnough() ? request.repeat + 1 : 1;
}

/// True if and only if the agent will refuse no answer: it does so where the manager may not look,
/// and then has the requests of the PDU continue in an order that only single steps reproduce.
bool Call::seesEnough() {
  static oid everything[] = {1};
  auto const sees = [this](oid * name, std::size_t length) {
    return netsnmp_acm_check_subtree(agent_->asp->pdu, name, length) == VACM_SUCCESS;
  };
  if (!seesEnough_)
    seesEnough_ =
        sees(everything, std::size(everything)) ||
        (agent_->asp->vbcount == 1 && sees(registration_->rootoid, registration_->rootoid_len));
  return *seesEnough_;
}

/// Leads to the first cell past the one that the request names. net-snmp's iterator does not heed
/// `inclusive` either.
void Call::skipAsked(Cursor & cursor) const {
  SubIds const asked{asked_.index_oid, asked_.index_oid_len};
  auto const column = cursor.column();
  while (!cursor.atEnd() && cursor.column() == column && !cursor.index().empty() &&
         !std::ranges::lexicographical_compare(asked, cursor.index()))
    cursor.nextRow();
}

bool Call::answer(netsnmp_request_info & request, Cursor const & cursor) {
  if (cursor.index().empty())
    return false; // it has no room in a name
  auto & varbind = *request.requestvb;
  varbind.type = ASN_NULL;
  snmp_set_var_objid(&varbind, cursor.name().data(), cursor.name().size());
  asked_.indexes = cursor.indexVarbinds();
  return askModule(request, cursor.makeDataContext()) == SNMP_ERR_NOERROR && request.status == 0 &&
         varbind.type != ASN_NULL && varbind.type != ASN_PRIV_RETRY;
}

/// The module sees every request as a GET, with its records as net-snmp's iterator leaves them.
int Call::askModule(netsnmp_request_info & request, void * dataContext) {
  static char tableName[] = TABLE_HANDLER_NAME;
  static char iteratorName[] = TABLE_ITERATOR_NAME;
  netsnmp_data_list context{request.parent_data, iteratorName, dataContext, nullptr};
  netsnmp_data_list table{&context, tableName, &asked_, nullptr};
  request.parent_data = &table;
  request.processed = 0;
  auto const mode = std::exchange(agent_->mode, MODE_GET);
  auto const status = netsnmp_call_handler(module_, registration_, agent_, &request);
  agent_->mode = mode;
  request.parent_data = context.next; // what the module has added stays
  if (dataContext != nullptr)
    table_.info->free_data_context(dataContext, table_.info);
  return status;
}

// Before

Before::Before(netsnmp_request_info const & request)
    : varbind_(request.requestvb),
      repeat_(request.repeat),
      nameLength_(request.requestvb->name_length) {
  std::ranges::copy(nameOf(*request.requestvb), name_.data());
}

void Before::restore(netsnmp_request_info & request) const {
  for (auto * varbind = varbind_; varbind != request.requestvb->next_variable;
       varbind = varbind->next_variable)
    snmp_set_var_typed_value(varbind, ASN_NULL, nullptr, 0);
  snmp_set_var_objid(varbind_, name_.data(), nameLength_);
  request.requestvb = varbind_;
  request.repeat = repeat_;
  request.status = SNMP_ERR_NOERROR;
  request.processed = 0;
}

} // namespace

} // namespace Agent
