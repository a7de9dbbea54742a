/// Everything that the library publishes under a name, asked of the runtime by that name.

#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "VantorqFoundation/VantorqFoundation.h"

namespace vantorq {
namespace {

using namespace std::string_view_literals;

// The signature that the types of a typed function make.

template <class C, class R, class... A>
const char* typesOf(R (C::*)(A...)) {
    return wire::kSignature<std::remove_cvref_t<R>, A...>;
}
template <class C, class R, class... A>
const char* typesOf(R (C::*)(A...) const) {
    return wire::kSignature<std::remove_cvref_t<R>, A...>;
}
template <class R, class... A>
const char* typesOf(R (*)(A...)) {
    return wire::kSignature<std::remove_cvref_t<R>, A...>;
}
/// Of a function that takes the receiver first.
template <class R, class Receiver, class... A>
const char* typesOfMessage(R (*)(Receiver, A...)) {
    return wire::kSignature<std::remove_cvref_t<R>, A...>;
}

enum class Sent { toObject, toClass };

struct Message {
    const char* selector;
    Sent sent;
    const char* types;
    const char* typedTwin;
};

enum class Access { readOnly, readWrite };

struct Property {
    const char* name;
    Sent sent;
    const char* type;
    Access access;
    const char* typedTwin;  ///< of the getter
};

struct Published {
    const char* cls;
    const char* superclass;
    std::vector<const char*> categories;
    std::vector<Property> properties;
    std::vector<Message> messages;
};

std::vector<Published> everything() {
    using enum Sent;
    using enum Access;
    using Result = VNTQResult;
    using Operation = VNTQOperation;
    using BlockOperation = VNTQBlockOperation;
    using RunLoopOperation = VNTQRunLoopOperation;
    using RunLoopBlockOperation = VNTQRunLoopBlockOperation;
    using Lock = ReadWriteLock;
    using Body = Block<void()>;
    using Callback = Operation::Callback;
    using ObjectCallback = Operation::ObjectCallback;
    using TakesObject = void (Operation::*)(const id&);
    using TakesNothing = void (Operation::*)();
    using OneCallback = Ref<Operation> (Operation::*)(Callback);
    using TwoCallbacks = Ref<Operation> (Operation::*)(Callback, Callback);
    using OneObjectCallback = Ref<Operation> (Operation::*)(ObjectCallback);
    using TwoObjectCallbacks = Ref<Operation> (Operation::*)(ObjectCallback, ObjectCallback);

    return {
        {"VNTQResult",
         "NSObject",
         {"VNTQResultStandard"},
         {
             {"type", toObject, "Q", readWrite, typesOf(&Result::type)},
             {"error", toObject, "@", readWrite, typesOf(&Result::error)},
             {"value", toObject, "@", readWrite, typesOf(&Result::value)},
             {"success", toClass, "@", readOnly, typesOf(&Result::success)},
             {"failure", toClass, "@", readOnly, typesOf(&Result::failure)},
         },
         {
             {"resultWithSuccess:", toClass, "@@", typesOf(&Result::resultWithSuccess)},
             {"resultWithFailure:", toClass, "@@", typesOf(&Result::resultWithFailure)},
             {"initWithSuccess:", toObject, "@@", typesOf(&Result::initWithSuccess)},
             {"initWithFailure:", toObject, "@@", typesOf(&Result::initWithFailure)},
             {"copyWithZone:", toObject, "@^v", typesOf(&Result::copyWithZone)},
             {"description", toObject, "@", typesOf(&Result::description)},
         }},
        {"VNTQOperation",
         "NSOperation",
         {},
         {
             {"explicitResultDispatch", toObject, "B", readWrite,
              typesOf(&Operation::explicitResultDispatch)},
             {"executionQueue", toObject, "@", readWrite, typesOf(&Operation::executionQueue)},
             {"result", toObject, "@", readOnly, typesOf(&Operation::result)},
             {"resultQueue", toObject, "@", readWrite, typesOf(&Operation::resultQueue)},
             {"timeoutDate", toObject, "@", readWrite, typesOf(&Operation::timeoutDate)},
             {"timeoutInterval", toObject, "d", readWrite, typesOf(&Operation::timeoutInterval)},
             {"invalidateTimer", toObject, "@", readWrite, typesOf(&Operation::invalidateTimer)},
             {"timeRemaining", toObject, "d", readOnly, typesOf(&Operation::timeRemaining)},
         },
         {
             {"start", toObject, "v", typesOf(&Operation::start)},
             {"cancel", toObject, "v", typesOf(&Operation::cancel)},
             {"isAsynchronous", toObject, "B", typesOf(&Operation::isAsynchronous)},
             {"isExecuting", toObject, "B", typesOf(&Operation::isExecuting)},
             {"isFinished", toObject, "B", typesOf(&Operation::isFinished)},
             {"isReady", toObject, "B", typesOf(&Operation::isReady)},
             {"execute", toObject, "v", typesOf(&Operation::execute)},
             {"main", toObject, "v", typesOf(&Operation::main)},
             {"scheduleTimer:", toObject, "vd", typesOf(&Operation::scheduleTimer)},
             {"invalidateTimerIfNeeded", toObject, "v",
              typesOf(&Operation::invalidateTimerIfNeeded)},
             {"completeWithTimeout", toObject, "v", typesOf(&Operation::completeWithTimeout)},
             {"completeWithResult:", toObject, "v@", typesOf(&Operation::completeWithResult)},
             {"completeWithSuccess:", toObject, "v@",
              typesOf(static_cast<TakesObject>(&Operation::completeWithSuccess))},
             {"completeWithSuccess", toObject, "v",
              typesOf(static_cast<TakesNothing>(&Operation::completeWithSuccess))},
             {"completeWithFailure:", toObject, "v@",
              typesOf(static_cast<TakesObject>(&Operation::completeWithFailure))},
             {"completeWithFailure", toObject, "v",
              typesOf(static_cast<TakesNothing>(&Operation::completeWithFailure))},
             {"didFinishWithResult:", toObject, "v@", typesOf(&Operation::didFinishWithResult)},
             {"onResult:", toObject, "@@", typesOf(&Operation::onResult)},
             {"onCompletion:", toObject, "@@", typesOf(&Operation::onCompletion)},
             {"onValue:orError:", toObject, "@@@",
              typesOf(static_cast<TwoObjectCallbacks>(&Operation::onValue))},
             {"onValue:", toObject, "@@",
              typesOf(static_cast<OneObjectCallback>(&Operation::onValue))},
             {"onError:", toObject, "@@", typesOf(&Operation::onError)},
             {"onSuccess:orFailure:", toObject, "@@@",
              typesOf(static_cast<TwoCallbacks>(&Operation::onSuccess))},
             {"onSuccess:", toObject, "@@",
              typesOf(static_cast<OneCallback>(&Operation::onSuccess))},
             {"onFailure:", toObject, "@@", typesOf(&Operation::onFailure)},
         }},
        {"VNTQBlockOperation",
         "VNTQOperation",
         {},
         {
             {"executionBlock", toObject, "@", readWrite, typesOf(&BlockOperation::executionBlock)},
         },
         {
             {"operationWithExecution:", toClass, "@@",
              typesOf(&BlockOperation::operationWithExecution)},
             {"main", toObject, "v", typesOf(&BlockOperation::main)},
         }},
        {"VNTQRunLoopOperation",
         "VNTQOperation",
         {},
         {
             {"runLoop", toObject, "@", readWrite, typesOf(&RunLoopOperation::runLoop)},
             {"loopInterval", toObject, "d", readWrite, typesOf(&RunLoopOperation::loopInterval)},
             {"runPredicate", toObject, "@", readWrite, typesOf(&RunLoopOperation::runPredicate)},
         },
         {
             {"initWithRunPredicate:", toObject, "@@",
              typesOf(&RunLoopOperation::initWithRunPredicate)},
             {"startAndWaitFor:", toObject, "vd", typesOf(&RunLoopOperation::startAndWaitFor)},
             {"startAndWaitUntil:", toObject, "v@", typesOf(&RunLoopOperation::startAndWaitUntil)},
             {"runMode:beforeDate:", toObject, "B@@", typesOf(&RunLoopOperation::runMode)},
             {"isAsynchronous", toObject, "B", typesOf(&RunLoopOperation::isAsynchronous)},
             {"execute", toObject, "v", typesOf(&RunLoopOperation::execute)},
             {"scheduleTimer:", toObject, "vd", typesOf(&RunLoopOperation::scheduleTimer)},
         }},
        {"VNTQRunLoopBlockOperation",
         "VNTQRunLoopOperation",
         {},
         {
             {"executionBlock", toObject, "@", readWrite,
              typesOf(&RunLoopBlockOperation::executionBlock)},
         },
         {
             {"operationWithExecution:", toClass, "@@",
              typesOf(&RunLoopBlockOperation::operationWithExecution)},
             {"main", toObject, "v", typesOf(&RunLoopBlockOperation::main)},
         }},
        {"VQReadWriteLock",
         "NSObject",
         {},
         {},
         {
             {"init", toObject, "@", wire::kSignature<id>},
             {"dealloc", toObject, "v", wire::kSignature<void>},
             {"readLock", toObject, "v", typesOf(&Lock::readLock)},
             {"writeLock", toObject, "v", typesOf(&Lock::writeLock)},
             {"unlock", toObject, "v", typesOf(&Lock::unlock)},
             {"readBlockObjc:", toObject, "v@", typesOf(&Lock::readBlockObjc<const Body&>)},
             {"writeBlockObjc:", toObject, "v@", typesOf(&Lock::writeBlockObjc<const Body&>)},
         }},
        {"NSError",
         "NSObject",
         {"VNTQFoundation"},
         {},
         {
             {"vntq_foundationErrorWithCode:userInfo:", toClass, "@Q@",
              typesOf(&vntq_foundationErrorWithCode)},
             {"vntq_error:userInfo:", toClass, "@q@", typesOf(&vntq_error)},
             {"vntq_errorUnspecifiedWithUserInfo:", toClass, "@@",
              typesOf(&vntq_errorUnspecifiedWithUserInfo)},
             {"vntq_errorUnspecified:", toClass, "@@", typesOf(&vntq_errorUnspecified<>)},
             {"vntq_errorPINVerificationRequiredError", toClass, "@",
              typesOf(&vntq_errorPINVerificationRequiredError)},
             {"vntq_errorPINVerificationCanceledError", toClass, "@",
              typesOf(&vntq_errorPINVerificationCanceledError)},
             {"vntq_errorAgeVerificationNeededError", toClass, "@",
              typesOf(&vntq_errorAgeVerificationNeededError)},
             {"vntq_errorCreatePinInvalidPINError", toClass, "@",
              typesOf(&vntq_errorCreatePinInvalidPINError)},
             {"vntq_shortDomainForError:", toClass, "@@", typesOf(&vntq_shortDomainForError)},
             {"vntq_UserFacingErrorcode", toObject, "@", typesOfMessage(&vntq_UserFacingErrorcode)},
             {"vntq_isNetworkError", toObject, "B", typesOfMessage(&vntq_isNetworkError)},
             {"vntq_underlyingError", toObject, "@", typesOfMessage(&vntq_underlyingError)},
             {"vntq_debugRecoverySuggestion", toObject, "@",
              typesOfMessage(&vntq_debugRecoverySuggestion)},
         }},
    };
}

std::string setterOf(std::string_view property) {
    std::string name = "set" + std::string(property) + ":";
    name[3] = static_cast<char>(name[3] - 'a' + 'A');
    return name;
}

/// The types with which the class answers; "none" when it does not.
std::string_view typesInClass(const Class& cls, const std::string& selector, Sent sent) {
    const auto* method = cls.methodFor(Selector(selector), sent == Sent::toClass);
    return method != nullptr ? std::string_view(method->info->signature) : "none"sv;
}

TEST(PublishedInterface, EveryClassIsFoundByNameWithItsSuperclass) {
    for (const Published& one : everything()) {
        SCOPED_TRACE(one.cls);
        const Class* cls = Class::named(one.cls);
        ASSERT_NE(cls, nullptr);
        EXPECT_EQ(cls->name(), one.cls);
        ASSERT_NE(cls->superclass(), nullptr);
        EXPECT_EQ(cls->superclass()->name(), one.superclass);
    }
}

TEST(PublishedInterface, EveryCategoryExtendsItsClass) {
    for (const Published& one : everything()) {
        SCOPED_TRACE(one.cls);
        const auto names = Class::named(one.cls)->categoryNames();
        for (const char* category : one.categories) {
            EXPECT_THAT(names, testing::Contains(std::string_view(category)));
        }
    }
}

TEST(PublishedInterface, EveryMessageIsAnsweredWithTheTypesOfItsTypedTwin) {
    for (const Published& one : everything()) {
        const Class& cls = *Class::named(one.cls);
        for (const Message& message : one.messages) {
            SCOPED_TRACE(std::string(one.cls) + " " + message.selector);
            EXPECT_EQ(typesInClass(cls, message.selector, message.sent), message.types);
            EXPECT_STREQ(message.typedTwin, message.types);
        }
    }
}

TEST(PublishedInterface, EveryPropertyAnswersItsGetterWithTheTypeOfItsTypedTwin) {
    for (const Published& one : everything()) {
        const Class& cls = *Class::named(one.cls);
        for (const Property& property : one.properties) {
            SCOPED_TRACE(std::string(one.cls) + " " + property.name);
            EXPECT_EQ(typesInClass(cls, property.name, property.sent), property.type);
            EXPECT_STREQ(property.typedTwin, property.type);
        }
    }
}

TEST(PublishedInterface, EveryPropertyAnswersItsSetterUnlessItIsReadOnly) {
    for (const Published& one : everything()) {
        const Class& cls = *Class::named(one.cls);
        for (const Property& property : one.properties) {
            SCOPED_TRACE(std::string(one.cls) + " " + property.name);
            const std::string types =
                property.access == Access::readWrite ? "v" + std::string(property.type) : "none";
            EXPECT_EQ(typesInClass(cls, setterOf(property.name), property.sent), types);
        }
    }
}

TEST(PublishedInterface, EveryObjectPropertyIsListedByItsClassInOrder) {
    for (const Published& one : everything()) {
        SCOPED_TRACE(one.cls);
        std::vector<std::string_view> expected;
        for (const Property& property : one.properties) {
            if (property.sent == Sent::toObject) {
                expected.emplace_back(property.name);
            }
        }
        std::vector<std::string_view> listed;
        for (const PropertyInfo* property : Class::named(one.cls)->declaredProperties()) {
            listed.push_back(property->name);
        }
        // A category without properties says nothing of those that its class has anyway.
        if (!expected.empty()) {
            EXPECT_EQ(listed, expected);
        }
    }
}

TEST(PublishedInterface, EveryClassMakesInstancesByMessage) {
    for (const char* name :
         {"VNTQResult", "VNTQOperation", "VNTQBlockOperation", "VNTQRunLoopOperation",
          "VNTQRunLoopBlockOperation", "VQReadWriteLock"}) {
        SCOPED_TRACE(name);
        const Class* cls = Class::named(name);
        const id made = send<id>(send<id>(*cls, "alloc"_sel), "init"_sel);
        ASSERT_NE(made, nullptr);
        EXPECT_TRUE(made->isMemberOfClass(*cls));
    }
}

TEST(PublishedInterface, TheMethodsOfTheReadWriteLockAreDeclaredInTheirOrder) {
    std::vector<std::string_view> declared;
    for (const MethodInfo& method : ReadWriteLock::kClass.tables.methods) {
        declared.push_back(method.selector);
    }
    EXPECT_THAT(declared, testing::ElementsAre("init", "dealloc", "readLock", "writeLock", "unlock",
                                               "readBlockObjc:", "writeBlockObjc:"));
}

TEST(PublishedInterface, AResultCanBeCopied) {
    EXPECT_TRUE(Class::named("VNTQResult")->classConformsToProtocol(NSCopying));
}

TEST(PublishedInterface, TheFormatOfAnUnspecifiedErrorTakesArguments) {
    const auto* method = NSError::classObject().methodFor(Selector("vntq_errorUnspecified:"), true);
    ASSERT_NE(method, nullptr);
    EXPECT_TRUE(method->info->isVariadic);
}

TEST(PublishedInterface, TheKindsOfAResultHaveTheirNumbers) {
    EXPECT_EQ(static_cast<NSUInteger>(VNTQResultTypeNone), 0U);
    EXPECT_EQ(static_cast<NSUInteger>(VNTQResultTypeSuccess), 1U);
    EXPECT_EQ(static_cast<NSUInteger>(VNTQResultTypeFailure), 2U);
}

}  // namespace
}  // namespace vantorq
