// CRsSharedClasses.cpp - the one place that registers the model's shared
// classes. The order is fixed: it makes every delete-function index, and the
// build fingerprint, the same in every process of this build.
#include "CRsSharedClasses.h"

#include "CRsModel.h"

void KvRsRegisterSharedClasses()
{
    KV_REGISTER_SHARED_CLASS(CRsObj);
    KV_REGISTER_SHARED_CLASS(CRsValue);
    KV_REGISTER_SHARED_CLASS(CRsMsg);
    KV_REGISTER_SHARED_CLASS(CRsMsgList);
    KV_REGISTER_SHARED_CLASS(CRsConnectHln);
    KV_REGISTER_SHARED_CLASS(CRsChildList);
    KV_REGISTER_SHARED_CLASS(CRsNodeHln);
    KV_REGISTER_SHARED_CLASS(CRsQueue);
    KV_REGISTER_SHARED_CLASS(CRsNode);
    KV_REGISTER_SHARED_CLASS(CRsConnect);
    KV_REGISTER_SHARED_CLASS(CRsRefreshInfo);
    KV_REGISTER_SHARED_CLASS(QTopNode<CRsNodeHln>);
    KV_REGISTER_SHARED_CLASS(QTopNode<CRsConnectHln>);
    KV_REGISTER_SHARED_CLASS(Kv1Node<KvSmartPtr<CRsMsg>>);
}
