// The add-in's ribbon callbacks, which Office calls through IDispatch for every control each time
// the ribbon is drawn or invalidated, and the proposed file name made from a subject.
#include <string>

#include <benchmark/benchmark.h>

#include "addin/addin.h"
#include "addin/addin_guids.h"
#include "conversion/output_naming.h"
#include "platform/com_object.h"
#include "platform/com_ptr.h"
#include "platform/office.h"

namespace {

using mrwl::ComPtr;

class Control : public mrwl::ComObject<mrwl::office::IRibbonControl> {
 public:
  HRESULT STDMETHODCALLTYPE get_Id(BSTR* id) override {
    *id = mrwl::MakeBstr(u"MRWL_CreatePDF").release();
    return S_OK;
  }
};

ComPtr<IDispatch> AddinDispatch() {
  const auto addin = mrwl::MakeComObject<mrwl::Addin>();
  ComPtr<IDispatch> callbacks;
  addin->QueryInterface(IID_IDispatch, callbacks.put_void());
  return callbacks;
}

// GetEnabled by dispid with the control as its one argument: the whole Invoke path, argument
// coercion and the retval included.
void BM_InvokeGetEnabled(benchmark::State& state) {
  const ComPtr<IDispatch> callbacks = AddinDispatch();
  const auto control = mrwl::MakeComObject<Control>();
  VARIANT argument = mrwl::MakeObjectVariant(control->Identity(), VT_DISPATCH);
  DISPPARAMS params{&argument, nullptr, 1, 0};
  for (auto _ : state) {
    mrwl::UniqueVariant result;
    const HRESULT hr = callbacks->Invoke(mrwl::DISPID_GetEnabled, IID_NULL, 0, DISPATCH_METHOD,
                                         &params, result.put(), nullptr, nullptr);
    benchmark::DoNotOptimize(hr);
  }
  VariantClear(&argument);
}
BENCHMARK(BM_InvokeGetEnabled);

// The name lookup Office makes once per callback name.
void BM_GetIDsOfNames(benchmark::State& state) {
  const ComPtr<IDispatch> callbacks = AddinDispatch();
  std::u16string name = u"RibbonHandler";
  LPOLESTR names[] = {const_cast<LPOLESTR>(mrwl::OleText(name.c_str()))};
  for (auto _ : state) {
    DISPID id = 0;
    benchmark::DoNotOptimize(callbacks->GetIDsOfNames(IID_NULL, names, 1, 0, &id));
  }
}
BENCHMARK(BM_GetIDsOfNames);

// The main window's ribbon XML, read from the embedded resource and widened.
void BM_GetCustomUI(benchmark::State& state) {
  const auto addin = mrwl::MakeComObject<mrwl::Addin>();
  ComPtr<mrwl::office::IRibbonExtensibility> ribbon;
  addin->QueryInterface(mrwl::office::IID_IRibbonExtensibility, ribbon.put_void());
  const mrwl::UniqueBstr id = mrwl::MakeBstr(u"Microsoft.Outlook.Explorer");
  for (auto _ : state) {
    mrwl::UniqueBstr xml;
    benchmark::DoNotOptimize(ribbon->GetCustomUI(id.get(), xml.put()));
  }
}
BENCHMARK(BM_GetCustomUI);

// A long subject with forbidden units spread through it, past the 256-unit limit.
void BM_SanitizeFileName(benchmark::State& state) {
  std::u16string subject;
  while (subject.size() < 300) subject += u"Re: Q3-report [final].doc ";
  mrwl::WideString name;
  for (auto _ : state) {
    mrwl::SanitizeFileName(subject.data(), subject.size(), name);
    benchmark::DoNotOptimize(name.c_str());
  }
}
BENCHMARK(BM_SanitizeFileName);

}  // namespace
