' The print engine's typical job, by ProgID: open a document, stamp a letterhead beneath every
' page, append another document, save; and a failure seen as Err.Number with a description.
'   cscript //nologo job.vbs DOC.pdf LETTERHEAD.pdf APPENDIX.pdf MARKED.pdf PREFIX
Option Explicit
Dim passed, failed
passed = 0
failed = 0

Sub Check(ok, what)
    If ok Then
        passed = passed + 1
        WScript.Echo "ok - " & what
    Else
        failed = failed + 1
        WScript.Echo "not ok - " & what
    End If
End Sub

Dim args, doc, letterhead, appendix, ids, page, count
Set args = WScript.Arguments
Set doc = CreateObject("Ostrand.ZPdfContentObject")
Set letterhead = CreateObject("Ostrand.ZPdfContentObject")
Set appendix = CreateObject("Ostrand.ZPdfContentObject.1")

doc.SetPdfDocument args(0), False, ""
letterhead.SetPdfDocument args(1), False, ""
appendix.SetPdfDocument args(2), False, ""
count = doc.PageCount
Check count = 2, "the document has two pages"

ids = doc.ImportContent(letterhead)
Check UBound(ids) = 0, "one form per letterhead page"
For page = 1 To count
    doc.PlaceContent ids(0), page, 0, 0, 1, 1, True
Next
doc.AppendPages appendix
Check doc.PageCount = count + 1, "the appendix is appended"
doc.Save
Check Err.Number = 0, "the document is saved"

Dim parts
parts = doc.SplitPdf(args(3), args(4))
Check parts = 2, "the marked print file is split into two parts"

On Error Resume Next
doc.SetPdfDocument args(0) & ".missing", False, ""
Check Err.Number = &H80070057, "a missing file fails with E_INVALIDARG"
Check InStr(Err.Description, "No file matches") > 0, "the failure is described: " & Err.Description
Err.Clear
doc.OverlayFinish
Check Err.Number = &H80004001, "the overlay members are not implemented"
On Error GoTo 0

WScript.Echo passed & " passed, " & failed & " failed"
WScript.Quit failed
