#include "Common/Platform/Src/RefCount.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace quorvan {
namespace {

class IWidget : public virtual IRefCount
{
public:
    virtual int Value() const = 0;
};

// Counts its destructions in a counter that outlives it.
class Widget : public virtual IWidget, public IRefCountImpl
{
public:
    Widget(std::atomic<int>& destructions, int value) : m_destructions(destructions), m_value(value)
    {
    }
    int Value() const override { return m_value; }

private:
    ~Widget() override { ++m_destructions; }

    std::atomic<int>& m_destructions;
    int m_value;
};

// A factory in the Create...(T**) form: one reference for the caller.
void CreateWidget(std::atomic<int>& destructions, int value, IWidget** widget)
{
    *widget = new Widget(destructions, value);
}

TEST(ClockRefCount, NewObjectStartsAtOne)
{
    std::atomic<int> destructions{0};
    IWidget* widget = new Widget(destructions, 1);
    EXPECT_EQ(widget->GetRefCount(), 1);
    EXPECT_EQ(widget->Release(), 0);
    EXPECT_EQ(destructions.load(), 1);
}

TEST(ClockRefCount, AddRefAndReleaseReturnTheNewCount)
{
    std::atomic<int> destructions{0};
    IWidget* widget = new Widget(destructions, 1);
    EXPECT_EQ(widget->AddRef(), 2);
    EXPECT_EQ(widget->AddRef(), 3);
    EXPECT_EQ(widget->GetRefCount(), 3);
    EXPECT_EQ(widget->Release(), 2);
    EXPECT_EQ(widget->Release(), 1);
    EXPECT_EQ(destructions.load(), 0);
    EXPECT_EQ(widget->Release(), 0);
}

TEST(ClockRefCount, ReleaseToZeroDestroysExactlyOnce)
{
    std::atomic<int> destructions{0};
    IWidget* widget = new Widget(destructions, 1);
    widget->AddRef();
    widget->AddRef();
    widget->Release();
    widget->Release();
    EXPECT_EQ(destructions.load(), 0);
    EXPECT_EQ(widget->Release(), 0);
    EXPECT_EQ(destructions.load(), 1);
}

TEST(ClockRefCount, AddRefIfAliveAddsWhileAlive)
{
    std::atomic<int> destructions{0};
    IWidget* widget = new Widget(destructions, 1);
    EXPECT_EQ(widget->AddRefIfAlive(), 2);
    EXPECT_EQ(widget->GetRefCount(), 2);
    widget->Release();
    widget->Release();
    EXPECT_EQ(destructions.load(), 1);
}

TEST(ClockRefCount, AddRefIfAliveOnZeroLeavesTheCountAtZero)
{
    std::atomic<int> destructions{0};
    IWidget* widget = new Widget(destructions, 1);
    EXPECT_EQ(widget->DropRef(), 0);
    EXPECT_EQ(widget->AddRefIfAlive(), 0);
    EXPECT_EQ(widget->GetRefCount(), 0);
    EXPECT_EQ(destructions.load(), 0);
    widget->Destroy();
    EXPECT_EQ(destructions.load(), 1);
}

TEST(ClockRefCount, DropRefNeverDestroys)
{
    std::atomic<int> destructions{0};
    IWidget* widget = new Widget(destructions, 1);
    widget->AddRef();
    EXPECT_EQ(widget->DropRef(), 1);
    EXPECT_EQ(widget->DropRef(), 0);
    EXPECT_EQ(widget->DropRef(), -1);
    EXPECT_EQ(destructions.load(), 0);
    EXPECT_EQ(widget->GetRefCount(), -1);
    widget->Destroy();
    EXPECT_EQ(destructions.load(), 1);
}

TEST(ClockRefCount, DestroyDeletesWhateverTheCount)
{
    std::atomic<int> destructions{0};
    IWidget* widget = new Widget(destructions, 1);
    widget->AddRef();
    widget->AddRef();
    widget->Destroy();
    EXPECT_EQ(destructions.load(), 1);
}

TEST(ClockRefCount, CountingFromManyThreadsBalances)
{
    std::atomic<int> destructions{0};
    IWidget* widget = new Widget(destructions, 1);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([widget] {
            for (int i = 0; i < 10000; ++i) {
                widget->AddRef();
                widget->AddRefIfAlive();
                widget->Release();
                widget->Release();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(widget->GetRefCount(), 1);
    EXPECT_EQ(destructions.load(), 0);
    EXPECT_EQ(widget->Release(), 0);
    EXPECT_EQ(destructions.load(), 1);
}

TEST(ClockRefCount, LastReleaseOnAnotherThreadDestroysOnce)
{
    std::atomic<int> destructions{0};
    IWidget* widget = new Widget(destructions, 1);
    widget->AddRef();
    std::thread other([widget] { widget->Release(); });
    widget->Release();
    other.join();
    EXPECT_EQ(destructions.load(), 1);
}

TEST(ClockRefCountPtr, AdoptsTheReferenceWithoutAddingOne)
{
    std::atomic<int> destructions{0};
    {
        CRefCountPtr<IWidget> pointer(new Widget(destructions, 7));
        EXPECT_EQ(pointer->GetRefCount(), 1);
        EXPECT_EQ(pointer->Value(), 7);
        EXPECT_EQ((*pointer).Value(), 7);
        EXPECT_TRUE(static_cast<bool>(pointer));
    }
    EXPECT_EQ(destructions.load(), 1);
}

TEST(ClockRefCountPtr, EmptyPointerHoldsNothing)
{
    CRefCountPtr<IWidget> pointer;
    EXPECT_EQ(pointer.Get(), nullptr);
    EXPECT_FALSE(static_cast<bool>(pointer));
}

TEST(ClockRefCountPtr, CopyAddsAReference)
{
    std::atomic<int> destructions{0};
    {
        CRefCountPtr<IWidget> first(new Widget(destructions, 1));
        {
            CRefCountPtr<IWidget> second(first);
            EXPECT_EQ(first->GetRefCount(), 2);
            EXPECT_EQ(second.Get(), first.Get());
            EXPECT_TRUE(second == first);
        }
        EXPECT_EQ(first->GetRefCount(), 1);
        EXPECT_EQ(destructions.load(), 0);
    }
    EXPECT_EQ(destructions.load(), 1);
}

TEST(ClockRefCountPtr, CopyAssignmentReleasesWhatWasHeld)
{
    std::atomic<int> oldDestructions{0};
    std::atomic<int> newDestructions{0};
    CRefCountPtr<IWidget> target(new Widget(oldDestructions, 1));
    CRefCountPtr<IWidget> source(new Widget(newDestructions, 2));

    target = source;
    EXPECT_EQ(oldDestructions.load(), 1);
    EXPECT_EQ(target->Value(), 2);
    EXPECT_EQ(source->GetRefCount(), 2);
    EXPECT_EQ(newDestructions.load(), 0);
}

TEST(ClockRefCountPtr, SelfAssignmentKeepsTheReference)
{
    std::atomic<int> destructions{0};
    CRefCountPtr<IWidget> pointer(new Widget(destructions, 1));
    CRefCountPtr<IWidget>& alias = pointer;

    pointer = alias;
    EXPECT_EQ(pointer->GetRefCount(), 1);
    pointer = std::move(alias);
    EXPECT_EQ(pointer->GetRefCount(), 1);
    EXPECT_EQ(destructions.load(), 0);
}

TEST(ClockRefCountPtr, MoveHandsTheReferenceOver)
{
    std::atomic<int> destructions{0};
    CRefCountPtr<IWidget> source(new Widget(destructions, 1));
    IWidget* raw = source.Get();

    CRefCountPtr<IWidget> moved(std::move(source));
    EXPECT_EQ(moved.Get(), raw);
    EXPECT_EQ(source.Get(), nullptr);
    EXPECT_EQ(moved->GetRefCount(), 1);
}

TEST(ClockRefCountPtr, MoveAssignmentReleasesWhatWasHeld)
{
    std::atomic<int> oldDestructions{0};
    std::atomic<int> newDestructions{0};
    CRefCountPtr<IWidget> target(new Widget(oldDestructions, 1));
    CRefCountPtr<IWidget> source(new Widget(newDestructions, 2));

    target = std::move(source);
    EXPECT_EQ(oldDestructions.load(), 1);
    EXPECT_EQ(source.Get(), nullptr);
    EXPECT_EQ(target->Value(), 2);
    EXPECT_EQ(target->GetRefCount(), 1);
}

TEST(ClockRefCountPtr, AddressOfReleasesAndHandsOutTheSlot)
{
    std::atomic<int> oldDestructions{0};
    std::atomic<int> newDestructions{0};
    CRefCountPtr<IWidget> pointer(new Widget(oldDestructions, 1));

    CreateWidget(newDestructions, 2, &pointer);
    EXPECT_EQ(oldDestructions.load(), 1);
    EXPECT_EQ(pointer->Value(), 2);
    EXPECT_EQ(pointer->GetRefCount(), 1);
    pointer.Reset();
    EXPECT_EQ(newDestructions.load(), 1);
}

TEST(ClockRefCountPtr, ResetReleasesAndClears)
{
    std::atomic<int> destructions{0};
    CRefCountPtr<IWidget> pointer(new Widget(destructions, 1));
    pointer.Reset();
    EXPECT_EQ(pointer.Get(), nullptr);
    EXPECT_EQ(destructions.load(), 1);
}

TEST(ClockRefCountPtr, DetachGivesUpWithoutReleasing)
{
    std::atomic<int> destructions{0};
    CRefCountPtr<IWidget> pointer(new Widget(destructions, 1));
    IWidget* raw = pointer.Detach();
    EXPECT_EQ(pointer.Get(), nullptr);
    EXPECT_EQ(raw->GetRefCount(), 1);
    EXPECT_EQ(destructions.load(), 0);
    raw->Release();
    EXPECT_EQ(destructions.load(), 1);
}

} // namespace
} // namespace quorvan
