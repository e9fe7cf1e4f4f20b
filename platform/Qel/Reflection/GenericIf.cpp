#include "Qel/Reflection/GenericIf.h"

#include "Qel/Core/Exception.h"
#include "Qel/Entity/Dir.h"
#include "Qel/Reflection/GenericValue.h"
#include "Qel/Reflection/QelType.h"
#include "Qel/Reflection/ValueTraits.h"

namespace Qel {

namespace {

QelAttr const& attributeOrThrow(GenericIf const& g, AttributeId aid) {
  QelAttr const* a = g.qelType()->attribute(aid);
  if (!a) {
    throw TypeException("type " + g.qelType()->name() + " has no attribute with id " +
                        std::to_string(aid));
  }
  return *a;
}

QelAttr const& attributeOrThrow(GenericIf const& g, Name const& name) {
  QelAttr const* a = g.qelType()->attribute(name);
  if (!a) throw TypeException("type " + g.qelType()->name() + " has no attribute " + name);
  return *a;
}

QelAttr const& collectionOrThrow(GenericIf const& g, AttributeId aid) {
  QelAttr const& a = attributeOrThrow(g, aid);
  if (!a.isCollection()) {
    throw TypeException("attribute " + a.name() + " of " + g.qelType()->name() +
                        " is not a collection");
  }
  return a;
}

// The attribute `name`, unless it is a handler, which is invoked and never written.
QelAttr const& writableOrThrow(GenericIf const& g, Name const& name) {
  QelAttr const& a = attributeOrThrow(g, name);
  if (a.isHandler()) {
    throw TypeException("attribute " + name + " of " + g.qelType()->name() + " is a handler");
  }
  return a;
}

// The handler's arguments in parameter order, after every check; see GenericIf::invoke.
std::vector<GenericIf::PtrConst> handlerArguments(GenericIf const& g, QelAttr const& h,
                                                  GenericIf::Arguments const& args) {
  std::string const what = "handler " + h.name() + " of " + g.qelType()->name();
  for (auto const& [name, value] : args) {
    if (!h.parameter(name)) throw TypeException(what + " has no parameter " + name);
  }
  std::vector<GenericIf::PtrConst> ordered;
  ordered.reserve(h.parameters().size());
  for (QelAttr::Parameter const& p : h.parameters()) {
    auto it = args.find(p.name);
    if (it == args.end()) throw TypeException(what + " is missing argument " + p.name);
    GenericIf const* v = it->second.ptr();
    bool const fits = !v ? p.pointer : p.accepts ? p.accepts(*v) : v->qelType() == p.type;
    if (!fits) {
      throw TypeException("argument " + p.name + " of " + what + " must be " + p.type->name() +
                          ", not " + (v ? std::string(v->qelType()->name()) : "null"));
    }
    ordered.push_back(it->second);
  }
  return ordered;
}

}  // namespace

GenericIf::~GenericIf() {
  // Only weak notifiees can still be registered: strong ones keep this object alive.
  notifiees_.forEachStable([](NotifieeBase* n) { n->notifierGone(); });
}

Name GenericIf::attributeName(AttributeId aid) const {
  QelAttr const* a = qelType()->attribute(aid);
  return a ? a->name() : Name("unknown");
}

AttributeId GenericIf::attributeId(Name const& name) const {
  QelAttr const* a = qelType()->attribute(name);
  return a ? a->id() : kNoAttribute;
}

GenericIf::PtrConst GenericIf::attribute(AttributeId aid, PtrConst const& key) const {
  QelAttr const& a = attributeOrThrow(*this, aid);
  if (!a.getter()) throw TypeException("attribute " + a.name() + " cannot be read");
  if (a.isCollection() && !key) {
    throw TypeException("collection " + a.name() + " is read by key");
  }
  return a.getter()(*this, key);
}

GenericIf::PtrConst GenericIf::isMember(AttributeId aid, PtrConst const& key) const {
  QelAttr const& a = collectionOrThrow(*this, aid);
  return ValueTraits<bool>::box(a.member()(*this, key));
}

GenericIf::PtrConst GenericIf::colLength(AttributeId aid) const {
  QelAttr const& a = collectionOrThrow(*this, aid);
  return ValueTraits<U32>::box(static_cast<U32>(a.count()(*this)));
}

void GenericIf::attributeIs(Name const& name, PtrConst const& value, PtrConst const& key) {
  QelAttr const& a = writableOrThrow(*this, name);
  if (a.isConstructorAttribute() || !a.setter()) {
    throw TypeException("attribute " + name + " of " + qelType()->name() + " is read-only");
  }
  if (a.isCollection() && !key) throw TypeException("collection " + name + " is written by key");
  a.setter()(*this, value, key);
}

void GenericIf::attributeIs(Name const&, PtrConst const&, PtrConst const&) const {
  throw ConstInstanceException();
}

void GenericIf::attributeIs(Name const& name, String const& text, String const& keyText) {
  QelAttr const& a = writableOrThrow(*this, name);
  PtrConst key;
  if (a.isCollection()) key = a.keyType()->valueFromText(keyText);
  PtrConst value;
  if (a.kind() == QelAttr::Kind::pointer || a.elementsArePointers()) {
    if (!text.empty()) {
      value = globalDir()->entity(text);
      if (!value) throw ParseException("no entity at " + text);
    }
  } else if (!(a.isCollection() && text.empty())) {
    value = a.type()->valueFromText(text);
  }
  attributeIs(name, value, key);
}

void GenericIf::attributeIs(Name const&, String const&, String const&) const {
  throw ConstInstanceException();
}

GenericIf::PtrConst GenericIf::invoke(Name const& name, Arguments const& args) {
  QelAttr const& h = attributeOrThrow(*this, name);
  if (!h.isHandler() || !h.invoker()) {
    throw TypeException("attribute " + name + " of " + qelType()->name() + " is no handler");
  }
  return h.invoker()(*this, handlerArguments(*this, h, args));
}

GenericIf::PtrConst GenericIf::invoke(Name const&, Arguments const&) const {
  throw ConstInstanceException();
}

void GenericIf::NotifieeConst::qelDispatch(AttributeId aid, NotifyKey const& key) {
  PtrConst boxed(key.boxed);
  if (!boxed && key.native) {
    QelAttr const* a = notifierBase()->qelType()->attribute(aid);
    if (a && a->keyType()) boxed = a->keyType()->box(key.native);
  }
  onAttribute(aid, boxed);
}

NotifieeBase::~NotifieeBase() {
  if (destroyed_) *destroyed_ = true;
  notifierBaseIs(nullptr);
}

void NotifieeBase::notifierBaseIs(GenericIf const* n) {
  if (n == notifier_) return;
  GenericIf const* old = notifier_;
  if (old) old->notifiees_.remove(this);
  notifier_ = n;
  if (n) {
    n->notifiees_.add(this);
    if (!weak_) n->newRef();
  }
  if (old && !weak_) old->deleteRef();
}

void NotifieeBase::notifierGone() {
  notifier_ = nullptr;
  onNotifierDeleted();
}

}  // namespace Qel
