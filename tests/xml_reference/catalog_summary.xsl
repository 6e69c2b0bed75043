<?xml version="1.0"?>
<!-- Books by price, with their authors and a total. -->
<xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform">
  <xsl:output method="xml" omit-xml-declaration="yes"/>
  <xsl:template match="/catalog">
    <summary books="{count(book)}" total="{format-number(sum(book/price), '0.00')}">
      <xsl:for-each select="book">
        <xsl:sort select="price" data-type="number" order="descending"/>
        <book ref="{@id}">
          <xsl:if test="@year &lt; 2000"><xsl:attribute name="classic">yes</xsl:attribute></xsl:if>
          <xsl:value-of select="title"/>
          <xsl:for-each select="author"><by><xsl:value-of select="concat(last, ', ', first)"/></by></xsl:for-each>
        </book>
      </xsl:for-each>
      <xsl:copy-of select="//comment()"/>
    </summary>
  </xsl:template>
</xsl:stylesheet>
