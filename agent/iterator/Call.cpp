// What becomes of one request, from its name to its answers. In this order: what the name says,
// GET, and GETNEXT and GETBULK, which are a walk of one or more repetitions; last, how the module
// is asked for a cell.
#include "agent/iterator/Call.h"
#include <algorithm>
#include <array>
#include <utility>

#include <net-snmp/agent/bulk_to_next.h>
#include <net-snmp/library/vacm.h>

namespace Agent::TableIterator {

namespace {

SubIds nameOf(netsnmp_variable_list const & varbind) {
  return {varbind.name, varbind.name_length};
}

bool beginsWith(SubIds name, SubIds prefix) {
  return name.size() >= prefix.size() && std::ranges::equal(name.first(prefix.size()), prefix);
}

bool isMissing(u_char type) {
  return type == SNMP_NOSUCHOBJECT || type == SNMP_NOSUCHINSTANCE || type == SNMP_ENDOFMIBVIEW;
}

// Cuts a request out of its list: the handlers beneath see it alone, as with net-snmp's serialize
// handler.
class SingleRequest {
public:
  explicit SingleRequest(netsnmp_request_info & request) : request_(request), next_(request.next) {
    request.next = nullptr;
  }
  SingleRequest(SingleRequest const &) = delete;
  SingleRequest & operator=(SingleRequest const &) = delete;
  ~SingleRequest() { request_.next = next_; }

private:
  netsnmp_request_info & request_;
  netsnmp_request_info * const next_;
};

// A request as it came, to take back what was answered.
class SavedRequest {
public:
  explicit SavedRequest(netsnmp_request_info const & request);
  void restore(netsnmp_request_info & request) const;

private:
  netsnmp_variable_list * const varbind_;
  int const repeat_;
  std::size_t const nameLength_;
  std::array<oid, MAX_OID_LEN> name_;
};

} // namespace

netsnmp_mib_handler * iteratorBeneath(netsnmp_mib_handler * handler) {
  while (handler != nullptr && handler->access_method != netsnmp_table_iterator_helper_handler)
    handler = handler->next;
  return handler;
}

Call::Call(netsnmp_mib_handler * self, netsnmp_handler_registration * registration,
           netsnmp_agent_request_info * agent, Stock stock)
    : self_(self),
      registration_(registration),
      agent_(agent),
      stock_(stock),
      table_(*static_cast<Table const *>(self->myvoid)),
      root_(registration->rootoid, registration->rootoid_len),
      module_(iteratorBeneath(self)->next) {
  asked_.reg_info = table_.info->table_reginfo;
}

int Call::serve(netsnmp_request_info * requests) {
  for (auto * request = requests; request != nullptr; request = request->next) {
    SingleRequest const single(*request);
    if (auto const status = serveOne(*request); status != SNMP_ERR_NOERROR)
      return status;
  }
  return SNMP_ERR_NOERROR;
}

int Call::serveOne(netsnmp_request_info & request) {
  if (request.processed != 0 || !understand(request))
    return leaveToStock(request);
  if (MODE_IS_SET(agent_->mode))
    return set(request);
  return agent_->mode == MODE_GET ? get(request) : walk(request);
}

int Call::leaveToStock(netsnmp_request_info & request) {
  if (stock_ == Stock::isNotAsked)
    return SNMP_ERR_GENERR;
  return netsnmp_call_next_handler(self_, registration_, agent_, &request);
}

// False for everything that is not the name of a cell or, in a walk, of a column or a place before
// the first one; and where somebody else has registered a later part of the table.
bool Call::understand(netsnmp_request_info const & request) {
  asked_.number_indexes = 0;
  asked_.index_oid_len = 0;
  asked_.indexes = table_.asked.emptied();
  auto const walks = agent_->mode == MODE_GETNEXT || agent_->mode == MODE_GETBULK;
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

// True if and only if the table has the column. net-snmp knows columns as a list, as ranges, or by
// the smallest and the largest number alone; all that it tells is the next column after one. So
// the question is put as: which one comes after the number before?
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
  void * dataContext = nullptr;
  findsRow(dataContext);
  return askModule(request, dataContext, MODE_GET);
}

// True if and only if the row that is named exists; makes its data context then.
bool Call::findsRow(void *& dataContext) {
  Cursor cursor(table_, root_, asked_);
  SubIds const asked{asked_.index_oid, asked_.index_oid_len};
  auto const found = !cursor.atEnd() && std::ranges::equal(cursor.index(), asked);
  if (found)
    dataContext = cursor.makeDataContext();
  return found;
}

// net-snmp's iterator looks for the row in the first phase, through every row when there is none;
// what it and the table handler found stays with the request for the phases that follow. A row that
// exists is left to them. For one that does not, the module is asked here, and nothing stays: that
// tells in the later phases that it was so.
int Call::set(netsnmp_request_info & request) {
  auto const isFirst = agent_->mode == MODE_SET_RESERVE1;
  void * dataContext = nullptr;
  if (isFirst && findsRow(dataContext)) {
    if (dataContext != nullptr)
      table_.info->free_data_context(dataContext, table_.info);
    return leaveToStock(request);
  }
  if (!isFirst && netsnmp_request_get_list_data(&request, TABLE_HANDLER_NAME) != nullptr)
    return leaveToStock(request);
  return askModule(request, nullptr, agent_->mode);
}

int Call::walk(netsnmp_request_info & request) {
  SavedRequest const asItCame(request);
  if (answerRepetitions(request))
    return SNMP_ERR_NOERROR;
  asItCame.restore(request);
  return leaveToStock(request);
}

// Answers until enough is answered or the table ends: then the next varbind is one without an
// answer, and the agent looks elsewhere for it. False when there is no answer at all, a cell that
// the module does not answer, or a cell without an instance where the last answer should be.
//
// The loop context carries the walk from one answer to the next: that is what makes a repetition
// cheap. Before the last answer it goes, as with net-snmp's iterator, which has one for each: a
// module that is asked for a cell must not find a walk of its own under way. If that cell then has
// no instance there is no way back into the column, and net-snmp's handlers begin anew.
bool Call::answerRepetitions(netsnmp_request_info & request) {
  Cursor cursor(table_, root_, asked_);
  skipAsked(cursor);
  netsnmp_variable_list const * last = nullptr;
  for (auto left = repetitions(request); !cursor.atEnd();) {
    // After it has refused an answer the agent counts more repetitions than there are varbinds.
    auto const isLast = left == 1 || request.requestvb->next_variable == nullptr;
    if (!answer(request, cursor, isLast))
      return false;
    auto const type = request.requestvb->type;
    if (isMissing(type)) {
      auto const isInColumn = type == SNMP_NOSUCHINSTANCE;
      if (!seesEnough() || (isInColumn && isLast))
        return false;
      isInColumn ? cursor.nextRow() : cursor.nextColumn();
      continue;
    }
    if (isLast) {
      netsnmp_bulk_to_next_fix_requests(&request);
      return true;
    }
    // What that function does, without a name that the next answer would replace.
    last = request.requestvb;
    request.requestvb = last->next_variable;
    --request.repeat;
    --left;
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

// True if and only if the agent will refuse no answer.
//
// After a handler has answered, the agent looks at each answer's name, and where the manager may
// not see it, the agent takes the answer back and asks for the next one. It does so request by
// request and then goes on with those that are still open, in an order of its own: what a GETBULK
// of several names contains then depends on how many answers each step gave. Only steps of one
// answer give what net-snmp's iterator gives. The question is asked once for a call, since looking
// through a view costs more than finding a row.
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

// Leads to the first cell past the one that the request names. net-snmp's iterator does not heed
// `inclusive` either.
void Call::skipAsked(Cursor & cursor) const {
  SubIds const asked{asked_.index_oid, asked_.index_oid_len};
  auto const column = cursor.column();
  while (!cursor.atEnd() && cursor.column() == column && !cursor.index().empty() &&
         !std::ranges::lexicographical_compare(asked, cursor.index()))
    cursor.nextRow();
}

bool Call::answer(netsnmp_request_info & request, Cursor & cursor, bool isLast) {
  if (cursor.index().empty())
    return false; // it has no room in a name
  auto & varbind = *request.requestvb;
  varbind.type = ASN_NULL;
  snmp_set_var_objid(&varbind, cursor.name().data(), cursor.name().size());
  asked_.indexes = cursor.indexVarbinds();
  auto * dataContext = cursor.makeDataContext();
  if (isLast)
    cursor.leaveRows();
  return askModule(request, dataContext, MODE_GET) == SNMP_ERR_NOERROR && request.status == 0 &&
         varbind.type != ASN_NULL && varbind.type != ASN_PRIV_RETRY;
}

// The module sees every request but a SET as a GET, with its records as net-snmp's iterator leaves
// them: the data context and the table information, found by name in a list. Both entries stand on
// the stack, in front of what the request has already; when the module returns they are taken out.
// They have no function that frees them, so that nothing of ours is freed if the module frees the
// list.
int Call::askModule(netsnmp_request_info & request, void * dataContext, int seen) {
  static char tableName[] = TABLE_HANDLER_NAME;
  static char iteratorName[] = TABLE_ITERATOR_NAME;
  netsnmp_data_list context{request.parent_data, iteratorName, dataContext, nullptr};
  netsnmp_data_list table{&context, tableName, &asked_, nullptr};
  request.parent_data = &table;
  request.processed = 0;
  auto const mode = std::exchange(agent_->mode, seen);
  auto const status = netsnmp_call_handler(module_, registration_, agent_, &request);
  agent_->mode = mode;
  request.parent_data = context.next; // a module adds its own behind them, and they stay
  if (dataContext != nullptr)
    table_.info->free_data_context(dataContext, table_.info);
  return status;
}

namespace {

SavedRequest::SavedRequest(netsnmp_request_info const & request)
    : varbind_(request.requestvb),
      repeat_(request.repeat),
      nameLength_(request.requestvb->name_length) {
  std::ranges::copy(nameOf(*request.requestvb), name_.data());
}

void SavedRequest::restore(netsnmp_request_info & request) const {
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

} // namespace Agent::TableIterator
